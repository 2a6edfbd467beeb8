// Whole-file reads and crash-safe replacement of the simulator's state files.
//
// save_atomically() never leaves a half-written file under `path`: it writes
// the new contents to "<path>.tmp.<pid>" in the same directory, syncs it,
// renames it over `path` and syncs the directory, so after a crash `path`
// holds either the old contents or the new ones. The file is created with
// mode 0600 (state may hold passwords). On failure the temporary file is
// removed and `why` says which step failed and the system's reason.
#ifndef TQSIM_STATEFILE_H
#define TQSIM_STATEFILE_H

#include <string>
#include <string_view>

namespace tqsim {

[[nodiscard]] bool save_atomically(const std::string &path, std::string_view contents,
                                   std::string &why);

// Removes what save_atomically() leaves behind when the process dies between
// creating its temporary file and renaming it: the regular files in dir
// named "<stem>.tmp.<pid>" (any stem when stem is empty) whose pid is no
// running process, each named on stderr. A missing dir is no error. Returns
// how many were removed.
std::size_t remove_stale_temporaries(const std::string &dir, std::string_view stem = {});

// The directory part of path ("." when it has none).
std::string directory_of(const std::string &path);

// Reads the whole file. A file that does not exist is no error: missing is
// set, contents emptied and true returned. Any other failure returns false
// with why.
[[nodiscard]] bool load_file(const std::string &path, std::string &contents, bool &missing,
                             std::string &why);

}  // namespace tqsim

#endif
