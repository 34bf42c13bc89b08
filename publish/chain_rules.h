#ifndef TOLM_PUBLISH_CHAIN_RULES_H_
#define TOLM_PUBLISH_CHAIN_RULES_H_

#include <map>
#include <optional>
#include <set>
#include <string>

#include "publish/delta.h"

namespace tolm::publish {

/// The keys of the files that one tree has and the other has not, or has otherwise.
std::set<std::string> TouchedKeys(const Tree& old_tree, const Tree& new_tree);

/// Throws NotInChain when the delta between the request's trees cannot be applied by devices,
/// whichever way they came to the old tree, alone or in one update with the chain's other deltas:
///
/// - Devices work on copies that lie in one directory, under names in which "/" and "." are "_". No
///   two files that a chain touches and that the new tree has may share one. One that is deleted
///   may leave its own to another that is created then or later, not to one that is patched. None
///   may lie where SQLite looks for the journal of another, and none may be longer than a file name
///   can be. (Earlier devices refuse any two names that share one, and take the full package.)
/// - Devices first remove what is touched, in the order of keys, and then put the new files into
///   place. A file may make room for a directory, but a directory never for a file: it is not empty
///   yet when its turn comes. Directories are left behind when their last file goes; an empty one
///   makes room, one with further directories does not.
void RequireFitForChain(const DeltaRequest& request);

/// Of a chain whose deltas, by the version that each leads to, name these keys, and which can be
/// applied one after the other: the newest version from which on applying them in one update may
/// end otherwise; none when it never does. Only what two files have to do with each other makes a
/// difference: one update has one directory of work copies, and all that is touched is removed
/// before anything is installed.
std::optional<int> LastStartWithConflict(const std::map<int, std::set<std::string>>& touched);

/// Whether a device can patch a work copy of the key, rather than only replace it: the decoder's
/// and SQLite's side files need a longer name.
bool CanBePatched(const std::string& key);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_CHAIN_RULES_H_
