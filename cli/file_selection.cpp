#include "cli/file_selection.h"

#include <algorithm>
#include <filesystem>
#include <set>
#include <system_error>

#include "kel/directory.h"
#include "kel/file.h"
#include "kel/format.h"
#include "kel/path.h"
#include "kel/text.h"
#include "kelcore/error_codes.h"
#include "kelcore/relative_name.h"

namespace {

constexpr std::uint64_t kMaxListBytes = std::uint64_t{16} << 20;

bool IsList(const KelString& argument) {
    return argument.starts_with('@');
}

/// A name that would be taken for another path would arrive there.
KelStatus CheckName(const KelString& path, const KelString& relative) {
    const KelString name = NameForPath(relative);
    if (!IsSafePathElement(name))
        return KelError{
            kKelErrorBadInput,
            KelFormat("'%S' cannot be published under its name: with 3 bytes for each '/' it must have "
                      "at most 255, without '\\' or control characters",
                      path)};
    if (PathInName(name) != relative)
        return KelError{kKelErrorBadInput,
                        KelFormat("'%S' cannot be published under its name: '%%2F' and parts that begin with "
                                  "'.kel-' have a meaning of their own",
                                  path)};
    return {};
}

/// Adds the files of a folder to a selection.
class FolderWalk {
  public:
    FolderWalk(const KelString& folder, FileSelection& selection) : folder_(folder), selection_(selection) {}

    KelStatus Run() {
        std::error_code error;
        const auto options = std::filesystem::directory_options::none;
        std::filesystem::recursive_directory_iterator entry(folder_, options, error), end;
        while (!error && entry != end) {
            if (KelStatus taken = Take(*entry); !taken) return taken;
            entry.increment(error);
        }
        if (error)
            return KelError{kKelErrorBadInput,
                            KelFormat("the folder '%S' cannot be read: %S", folder_, error.message())};
        if (found_.empty())
            return KelError{kKelErrorBadInput, KelFormat("the folder '%S' holds no file", folder_)};
        std::ranges::sort(found_, {}, &SourceFile::name);
        selection_.files.insert(selection_.files.end(), found_.begin(), found_.end());
        return {};
    }

  private:
    KelStatus Take(const std::filesystem::directory_entry& entry) {
        std::error_code ignored;
        const KelString path = entry.path().string();
        if (entry.is_regular_file(ignored)) {  // also through a link
            const KelString relative = entry.path().lexically_relative(folder_).string();
            found_.push_back({path, NameForPath(relative)});
            return CheckName(path, relative);
        }
        if (entry.is_symlink(ignored) || !entry.is_directory(ignored)) selection_.leftOut.push_back(path);
        return {};
    }

    const KelString& folder_;
    FileSelection& selection_;
    KelVector<SourceFile> found_;
};

KelStatus AddPath(const KelString& path, bool recursive, FileSelection& selection) {
    if (DirExists(path)) {
        if (!recursive)
            return KelError{kKelErrorBadInput,
                            KelFormat("'%S' is a folder; --recursive publishes the files in it", path)};
        return FolderWalk(path, selection).Run();
    }
    if (!FileExists(path)) return KelError{kKelErrorBadInput, KelFormat("there is no file '%S'", path)};
    const KelString name = FileNameOf(path);
    selection.files.push_back({path, name});
    return CheckName(path, name);
}

}  // namespace

KelString FileNameOf(const KelString& file) {
    KelString folder, name;
    SplitPath(CompletePath(file), folder, name);
    return name;
}

KelStatus CheckDifferentNames(const KelVector<SourceFile>& files) {
    std::set<KelString> names;
    for (const SourceFile& file : files) {
        if (!names.insert(file.name).second)
            return KelError{kKelErrorBadInput,
                            "two of the files are named '" + PathInName(file.name) + "'; nothing was sent"};
    }
    return {};
}

KelResult<KelVector<KelString>> ReadList(const KelString& path) {
    const auto text = FileReadText(path == "-" ? "/dev/stdin" : path, kMaxListBytes);
    if (!text) return text.Error();
    KelVector<KelString> lines;
    for (KelString& line : SplitText(*text, '\n')) {
        if (line.ends_with('\r')) line.pop_back();
        if (!Trim(line).empty() && !line.starts_with('#')) lines.push_back(std::move(line));
    }
    if (lines.empty()) return KelError{kKelErrorBadInput, KelFormat("the list '%S' is empty", path)};
    return lines;
}

KelResult<FileSelection> SelectFiles(const KelVector<KelString>& arguments, bool recursive) {
    FileSelection selection;
    for (const KelString& argument : arguments) {
        KelVector<KelString> paths = {argument};
        if (IsList(argument)) {
            auto listed = ReadList(argument.substr(1));
            if (!listed) return listed.Error();
            paths = std::move(*listed);
        }
        for (const KelString& path : paths)
            if (const KelStatus added = AddPath(path, recursive, selection); !added) return added.Error();
    }
    if (const KelStatus different = CheckDifferentNames(selection.files); !different)
        return different.Error();
    return selection;
}

KelResult<KelVector<KelString>> SelectTargets(const KelVector<KelString>& words) {
    KelVector<KelString> targets;
    for (const KelString& word : words) {
        if (!IsList(word)) {
            targets.push_back(word);
            continue;
        }
        const auto lines = ReadList(word.substr(1));
        if (!lines) return lines.Error();
        for (const KelString& line : *lines)
            for (const KelString& target : SplitText(line, ','))
                if (KelString trimmed = Trim(target); !trimmed.empty()) targets.push_back(std::move(trimmed));
    }
    return targets;
}
