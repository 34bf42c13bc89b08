// What a program does with libtolmoperation, however it came to have it: a download, watched.

#include "tests/operation/loading/download.h"

#include <exception>
#include <iostream>

#include "operation/bounded_downloads.h"
#include "operation/service.h"

int DownloadWatched() {
  using namespace tolm::operation;
  try {
    const Service service = BuildService([](const std::string&) {});
    std::cout << "built" << std::endl;
    WithBoundedDownloads([&service] { service.info->GetDatabaseInfo(); });
  } catch (const std::exception& error) {
    std::cout << error.what() << std::endl;
  }
  return 0;
}
