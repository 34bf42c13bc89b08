#ifndef TOLM_PUBLISH_WEB_FETCH_H_
#define TOLM_PUBLISH_WEB_FETCH_H_

#include <cstddef>
#include <functional>
#include <map>
#include <string>

namespace tolm::publish {

/// What a web server answered, asked by wget as devices ask it.
struct WebAnswer {
  bool is_complete = false;                    ///< wget was content with it, and so was the taker
  int status = 0;                              ///< of the last answer; 0 without one
  std::map<std::string, std::string> headers;  ///< of the last answer; names in small letters
  std::string problem;                         ///< why it is not complete
};

/// Takes a piece of what arrives; false: no more is wanted.
using WebTaker = std::function<bool(const char* data, std::size_t size)>;

/// Asks for the whole of what is there, and hands it over as it arrives. Throws package::Error when
/// wget is not installed.
WebAnswer FetchFromWeb(const std::string& url, const WebTaker& take);

/// Asks for the headers alone.
WebAnswer LookAtWeb(const std::string& url);

}  // namespace tolm::publish

#endif  // TOLM_PUBLISH_WEB_FETCH_H_
