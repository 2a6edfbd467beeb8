// The simulator's state file (--state): the committed ruleset and live views
// as JSON, read at start and written after every commit of either resource.
//
//   {"format": 1,
//    "ruleset": {"counters": {...}, "objects": [[...] x 19], "shaping_objects": [...],
//                "conditions": [...], "rules": [[fw], [shaping], [statistics]],
//                "statistics_objects": [...], "ipfix_objects": [...]},
//    "liveviews": {"counters": {"view": N, "part": N}, "views": [...]}}
//
// A member that is missing takes its default, so a file may be written by
// hand; one of the wrong kind is refused with its path
// ("ruleset.objects[0][2].name: expected a string"). The id counters are
// kept, and never read back below the largest id in use, so ids are never
// handed out twice.
#ifndef TQSIM_STATE_H
#define TQSIM_STATE_H

#include <string>

#include "store.h"

namespace tqsim {

// Fills the ruleset and live view resources from path; a missing file
// leaves them empty. false with why (naming the file) when the file cannot
// be read or is not a state file.
[[nodiscard]] bool load_state(Store &store, const std::string &path, std::string &why);
// Writes the committed contents of both resources to path, atomically.
[[nodiscard]] bool save_state(const Store &store, const std::string &path, std::string &why);

}  // namespace tqsim

#endif
