#include "src/root.h"

namespace tolm::dataupdate {

const char kRoot[] = ".";

}  // namespace tolm::dataupdate
