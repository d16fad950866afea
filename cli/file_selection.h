#pragma once

#include "kel/result.h"
#include "kel/types.h"

// What FILE, FOLDER and @LIST on the command line stand for.

/// A file of this machine and the name under which it travels.
struct SourceFile {
    KelString path;
    KelString name;  ///< a relative path in a folder as kelcore/relative_name.h writes it
};

/// The last part of a file's path.
KelString FileNameOf(const KelString& file);

/// Refuses files of one name: under one type and label the second would replace the first.
KelStatus CheckDifferentNames(const KelVector<SourceFile>& files);

/// The lines of a text file ("-": of the standard input) without empty ones and those that begin with "#". An
/// error when it cannot be read or holds nothing.
KelResult<KelVector<KelString>> ReadList(const KelString& path);

struct FileSelection {
    KelVector<SourceFile> files;
    KelVector<KelString> leftOut;  ///< in folders: links to folders, and what is neither file nor folder
};

/// The files that the arguments name: files; with `recursive` folders, whose files are named by their path in
/// the folder, sorted; and "@LIST", a file that holds a path per line. An error when one cannot be used, a
/// folder holds no file, or two files have one name.
KelResult<FileSelection> SelectFiles(const KelVector<KelString>& arguments, bool recursive);

/// The targets that the words of --to name: "@LIST" stands for those in the file, separated by commas or
/// line ends.
KelResult<KelVector<KelString>> SelectTargets(const KelVector<KelString>& words);
