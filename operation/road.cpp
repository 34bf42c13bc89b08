#include "operation/road.h"

#include <utility>

#include "operation/tell_road.h"

namespace tolm::operation {
namespace {

Road::Listener the_listener;

}  // namespace

Road::Road(Listener listener) {
  the_listener = std::move(listener);
}

Road::~Road() {
  the_listener = nullptr;
}

void TellRoad(const std::string& line) {
  if (the_listener) {
    the_listener(line);
  }
}

}  // namespace tolm::operation
