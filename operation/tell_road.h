#ifndef TOLM_OPERATION_TELL_ROAD_H_
#define TOLM_OPERATION_TELL_ROAD_H_

#include <string>

namespace tolm::operation {

/// Tells the Road that there is, if any.
void TellRoad(const std::string& line);

}  // namespace tolm::operation

#endif  // TOLM_OPERATION_TELL_ROAD_H_
