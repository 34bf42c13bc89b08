// Measures the delta package between two trees against what ostree makes of the same two.
//
//   delta_tree OLD NEW
//
// Both make their delta from trees that are in place already: here the unpacked releases, there two
// commits. Neither is applied: the seconds are those of making it, compressed. Of the files that
// changed it also prints the bytes of xdelta3's patches, compressed by zstd -19, and those of zstd
// -19 --patch-from. Needs ostree, xdelta3 and zstd; works in a temporary directory.

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "package/package_writer.h"
#include "publish/delta.h"
#include "publish/key_generator.h"
#include "publish/signer.h"
#include "publish/tree.h"

namespace {

namespace fs = std::filesystem;
using tolm::publish::FileDelta;

double SecondsOf(const std::function<void()>& work) {
  const auto begin = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

void Run(const std::string& command) {
  if (std::system(command.c_str()) != 0) {
    throw std::runtime_error("failed: " + command);
  }
}

std::string Quote(const std::string& path) {
  return "'" + path + "'";
}

std::uintmax_t BytesBelow(const fs::path& directory) {
  std::uintmax_t bytes = 0;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    bytes += entry.is_regular_file() ? entry.file_size() : 0;
  }
  return bytes;
}

struct Cost {
  std::uintmax_t bytes = 0;
  double seconds = 0;
};

class Comparison {
 public:
  Comparison(fs::path old_tree, fs::path new_tree, fs::path work)
      : old_(std::move(old_tree)), new_(std::move(new_tree)), work_(std::move(work)) {}

  Cost Ours() {
    tolm::publish::DeltaRequest request;
    request.old_tree = tolm::publish::ScanTree(old_);
    request.new_tree = tolm::publish::ScanTree(new_);
    request.target_directory = work_ / "delta";
    const std::time_t now = std::time(nullptr);
    tolm::publish::GenerateKeys(work_ / "keys", now);
    const auto signer = tolm::publish::LoadSigner(work_ / "keys/signing.key",  //
                                                  work_ / "keys/signing.pem");
    const fs::path package = work_ / "tree_d2";
    Cost cost;
    cost.seconds = SecondsOf([&] {
      deltas_ = tolm::publish::MakeDelta(request);
      tolm::package::WritePackage(request.target_directory, package,
                                  {"tree", tolm::package::Kind::kDelta, 2}, {}, signer, now);
    });
    cost.bytes = fs::file_size(package);
    return cost;
  }

  Cost Ostree() const {
    const std::string ostree = "ostree --repo=" + Quote(work_ / "ostree") + " ";
    const std::string quietly = " >/dev/null 2>&1";
    Run(ostree + "init --mode=archive" + quietly);
    Run(ostree + "commit -b old --tree=dir=" + Quote(old_) + quietly);
    Run(ostree + "commit -b new --tree=dir=" + Quote(new_) + quietly);
    Cost cost;
    cost.seconds =
        SecondsOf([&] { Run(ostree + "static-delta generate --from=old --to=new new" + quietly); });
    cost.bytes = BytesBelow(work_ / "ostree/deltas");
    return cost;
  }

  std::uintmax_t FilesBy(const std::string& command) const {
    std::uintmax_t bytes = 0;
    for (const FileDelta& delta : deltas_) {
      if (fs::exists(old_.string() + delta.key) && fs::exists(new_.string() + delta.key)) {
        const fs::path out = work_ / "out";
        Run("OLD=" + Quote(old_.string() + delta.key) + " NEW=" + Quote(new_.string() + delta.key) +
            " OUT=" + Quote(out) + "; " + command);
        bytes += fs::file_size(out);
      }
    }
    return bytes;
  }

  void PrintKinds() const {
    std::map<std::string, int> kinds;
    for (const FileDelta& delta : deltas_) {
      ++kinds[tolm::publish::FileDeltaKindText(delta.kind)];
    }
    for (const auto& [kind, count] : kinds) {
      std::printf(" %d %s", count, kind.c_str());
    }
    std::printf("\n");
  }

 private:
  fs::path old_;
  fs::path new_;
  fs::path work_;
  std::vector<FileDelta> deltas_;
};

void Compare(const fs::path& old_tree, const fs::path& new_tree, const fs::path& work) {
  Comparison comparison(old_tree, new_tree, work);
  const Cost ours = comparison.Ours();
  const Cost theirs = comparison.Ostree();
  std::printf("%s -> %s:", old_tree.c_str(), new_tree.c_str());
  comparison.PrintKinds();
  std::printf("  package        %10ju bytes  %6.2f s\n", ours.bytes, ours.seconds);
  std::printf("  ostree         %10ju bytes  %6.2f s   package: x %.2f bytes, x %.2f time\n",
              theirs.bytes, theirs.seconds,
              static_cast<double>(ours.bytes) / static_cast<double>(theirs.bytes),
              ours.seconds / theirs.seconds);
  std::printf("  xdelta3+zstd   %10ju bytes\n",
              comparison.FilesBy("xdelta3 -9 -S none -B 1000000000 -e -f -s \"$OLD\" \"$NEW\" "
                                 "\"$OUT.x\" && zstd -19 -q -f \"$OUT.x\" -o \"$OUT\""));
  std::printf("  zstd patch     %10ju bytes\n",
              comparison.FilesBy("zstd -19 --long=27 -q -f --patch-from=\"$OLD\" \"$NEW\" -o "
                                 "\"$OUT\""));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: delta_tree OLD NEW\n");
    return 2;
  }
  std::string work = (fs::temp_directory_path() / "delta-tree-XXXXXX").string();
  if (mkdtemp(work.data()) == nullptr) {
    std::perror("mkdtemp");
    return 1;
  }
  int status = 0;
  try {
    Compare(argv[1], argv[2], work);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "delta_tree: %s\n", error.what());
    status = 1;
  }
  fs::remove_all(work);
  return status;
}
