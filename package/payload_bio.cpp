#include "package/payload_bio.h"

#include <algorithm>
#include <cerrno>
#include <memory>

#include "base/descriptor.h"
#include "package/cancellation.h"

namespace tolm::package {
namespace {

int Read(BIO* bio, char* buffer, std::size_t size, std::size_t* count) {
  auto& cursor = *static_cast<PayloadCursor*>(BIO_get_data(bio));
  if (IsReadingCancelled()) {
    cursor.errno_value = ECANCELED;
    *count = 0;
    return 0;
  }
  const auto wanted =
      static_cast<std::size_t>(std::min<std::uint64_t>(size, cursor.end - cursor.offset));
  const std::int64_t got = base::ReadAt(cursor.fd, buffer, wanted, cursor.offset);
  if (got < 0) {
    cursor.errno_value = errno;
  }
  *count = got > 0 ? static_cast<std::size_t>(got) : 0;
  cursor.offset += *count;
  return got > 0 ? 1 : 0;
}

long Control(BIO*, int command, long, void*) {
  return command == BIO_CTRL_FLUSH ? 1 : 0;
}

using MethodPtr = std::unique_ptr<BIO_METHOD, OpenSslDelete<BIO_meth_free>>;

MethodPtr NewMethod() {
  MethodPtr method =
      Checked(MethodPtr(BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "payload")));
  CheckResult(BIO_meth_set_read_ex(method.get(), Read));
  CheckResult(BIO_meth_set_ctrl(method.get(), Control));
  return method;
}

}  // namespace

BioPtr NewPayloadBio(PayloadCursor& cursor) {
  static const MethodPtr kMethod = NewMethod();
  BioPtr bio = Checked(BioPtr(BIO_new(kMethod.get())));
  BIO_set_data(bio.get(), &cursor);
  return bio;
}

}  // namespace tolm::package
