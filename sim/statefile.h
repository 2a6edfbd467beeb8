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

// Reads the whole file. A file that does not exist is no error: missing is
// set, contents emptied and true returned. Any other failure returns false
// with why.
[[nodiscard]] bool load_file(const std::string &path, std::string &contents, bool &missing,
                             std::string &why);

}  // namespace tqsim

#endif
