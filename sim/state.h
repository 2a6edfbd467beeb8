// The simulator's saved resources as one JSON document, the same for the
// state file (--state: read at start, written after every commit of a saved
// resource) and for the backup archives (the committed contents of one
// resource or of all of them, behind a small header):
//
//   {"format": 1,
//    "backup": {"resource": 0, "name": "nightly", "date": "...", "system": "tqdbsim"},
//    "ruleset": {"counters": {...}, "objects": [...], "shaping_objects": [...],
//                "conditions": [...], "rules": [...],
//                "statistics_objects": [...], "ipfix_objects": [...]},
//    "liveviews": {"counters": {"view": N, "part": N}, "views": [...]},
//    "users": {...},
//    "levels": {...}}
//
// "backup" is in archives only. A state file may leave any part out (that
// resource starts empty), so files written before a part existed still
// load; an archive holds the parts it was dumped with. A member of the
// wrong kind is refused with its path ("ruleset.objects[0].name: expected a
// string"). Id counters are kept, and never read back below the largest id
// in use, so ids are never handed out twice.
#ifndef TQSIM_STATE_H
#define TQSIM_STATE_H

#include <cstdint>
#include <string>
#include <vector>

#include "json.h"
#include "state_io.h"
#include "store.h"

namespace tqsim {

// What an archive says about itself.
struct ArchiveHeader {
  uint32_t resource = 0;  // what was dumped; 0: every saved resource
  std::string name;
  std::string date;       // "YYYY-MM-DD HH:MM:SS" UTC
  std::string system;
};
void io(Io &s, ArchiveHeader &h);

// The resources kept in the state file and in archives (ruleset, users,
// sysdiag levels, live views), in numeric order.
bool is_saved(uint32_t resource);
std::vector<uint32_t> saved_resources();

// The committed contents of every saved resource (only: just that one),
// with the header when given.
Json saved_document(const Store &store, uint32_t only, const ArchiveHeader *header);

// One resource's contents read from a document.
struct SavedPart {
  uint32_t resource = 0;
  ResourceData data;  // only the resource's own member is filled
};
// Reads a whole document, archive header included when header is given;
// false with error (naming the member's path) when any of it is wrong, in
// which case parts is not to be used.
[[nodiscard]] bool read_document(Json &doc, ArchiveHeader *header, std::vector<SavedPart> &parts,
                                 std::string &error);
// Moves r's own member of from into r's live contents.
void adopt(Resource &r, ResourceData &from);

// Fills the saved resources from path; a missing file leaves them empty.
// false with why (naming the file) when the file cannot be read or is not a
// state file.
[[nodiscard]] bool load_state(Store &store, const std::string &path, std::string &why);
// Writes the committed contents of every saved resource to path, atomically.
[[nodiscard]] bool save_state(const Store &store, const std::string &path, std::string &why);

}  // namespace tqsim

#endif
