#ifndef TOLM_SRC_ROOT_H_
#define TOLM_SRC_ROOT_H_

namespace tolm::dataupdate {

/// What goes before the absolute paths of the readers' locks and of files to be measured. Set when
/// a program or library is linked: empty in the library; the publisher's replay, which applies
/// deltas with these very objects, stays in a directory of its own.
extern const char kRoot[];

}  // namespace tolm::dataupdate

#endif  // TOLM_SRC_ROOT_H_
