#ifndef TOLM_OPERATION_TREE_COPY_H_
#define TOLM_OPERATION_TREE_COPY_H_

#include <string>

#include "operation/guarded_wget.h"

namespace tolm::operation {

/// Copies a file of a tree that nobody has to trust, as a download would put it there: only a
/// regular file that is reached without following a link below @p tree, never a pipe or a device,
/// which may block; into @p file, which is made anew. Bounded by the limit of files in force (see
/// FileSizeLimit), whose end it reports as wget's by SIGXFSZ. A signal that Interrupt has received
/// ends it. @p path is relative, without "." and "..". The tree is only read.
DownloadResult CopyFromTree(const std::string& tree, const std::string& path,
                            const std::string& file);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TREE_COPY_H_
