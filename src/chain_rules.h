#ifndef TOLM_SRC_CHAIN_RULES_H_
#define TOLM_SRC_CHAIN_RULES_H_

#include <json/value.h>

#include <map>
#include <set>
#include <string>

#include "dataupdate/strategy.h"

/// What a delta and a chain of deltas may ask for. Each throws UpdateError when it is not so.
namespace tolm::dataupdate {

/// The member, empty when it is missing or no string.
std::string StringMember(const Json::Value& value, const char* name);

/// A delta may name only what lies below the directory it is applied to.
void RequireBelow(const std::string& relative);

/// Nothing at all or a regular file; not what a link leads to.
void RequireRegularFile(const std::string& path);

/// What a delta brings must be a file of its own: not a directory, and not reached through a link
/// to elsewhere. A missing one is left to whoever reads it.
void RequireMember(const std::string& base, const std::string& relative);

/// To be asked before a delta is applied, with what the earlier ones of its chain have planned: no
/// file is named twice, and of the files that are to be installed in the end none is another's
/// work copy.
void RequireFitsPlan(const std::map<std::string, ModifyInfo>& plan, const Json::Value& patches);

/// To be asked before a file with a work copy is patched: the copy is not what another key of the
/// plan left there, which would be patched as if it were the installed file.
void RequireNoForeignWorkCopy(const std::map<std::string, ModifyInfo>& plan,
                              const std::string& key);

/// Nobody can go back once old files are removed, so what cannot be installed must be known before.
void RequireInstallable(const std::map<std::string, ModifyInfo>& plan,
                        const std::string& install_prefix);

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_CHAIN_RULES_H_
