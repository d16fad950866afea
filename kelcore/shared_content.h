#pragma once

#include "kel/types.h"

/// Makes `path` another name of the file `equal`, when both have the same bytes and lie on one file system
/// that has hard links: the content is then on the disk once, and stays until both names are gone. Neither
/// file may be written to in place, then or later; what replaces one of them leaves the other as it is. The
/// names of the moment are made in `workFolder`, which is on the same file system. True when they share one
/// file afterwards. Reads both files: hold no lock.
bool ShareContent(const KelString& path, const KelString& equal, const KelString& workFolder);
