#ifndef TOLM_PUBLISH_LIKENESS_H_
#define TOLM_PUBLISH_LIKENESS_H_

#include <string>

namespace tolm::publish {

/// How much of a compressed file a delta from another one could save at most: 0 for files that have
/// nothing in common, and more than 1 for like ones. An estimate that errs on the side of a delta:
/// what is common counts as much as it would take by itself, be it the one image in a text.
///
/// Looks for the shortest content that the VCDIFF encoder takes from the old file, by samples that
/// the content itself chooses, so that it is no matter where it stands. Both files are read once; a
/// few MiB of memory, whatever their sizes. The same files give the same answer. Throws
/// package::Error(kRead).
double MostThatADeltaSaves(const std::string& old_path, const std::string& new_path);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_LIKENESS_H_
