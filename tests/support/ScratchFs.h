#pragma once
// Small file systems for tests of what happens when writing fails for real: a tmpfs of a
// few pages that a test fills up or remounts read-only. It is mounted in a mount namespace
// of this process's own (inherited by the processes it starts), so it goes away with the
// process whatever becomes of the test. Needs root; without it the test skips.

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

namespace TarnTest {

/// A tmpfs of @p bytes at the existing directory @p dir, unmounted when this goes.
class ScratchFs {
public:
  ScratchFs(std::string dir, size_t bytes) : dir_(std::move(dir)) {
    if (::geteuid() != 0) {
      whyNot_ = "needs root to mount a small file system";
    } else if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
               ::mount("scratch", dir_.c_str(), "tmpfs", 0, ("size=" + std::to_string(bytes)).c_str()) != 0) {
      whyNot_ = std::string("cannot mount a private tmpfs: ") + std::strerror(errno);
    }
  }
  ~ScratchFs() {
    if (whyNot_.empty()) ::umount2(dir_.c_str(), MNT_DETACH);
  }
  ScratchFs(ScratchFs const&) = delete;
  ScratchFs& operator=(ScratchFs const&) = delete;

  /// Empty when mounted, else why not (the test then skips).
  std::string const& whyNot() const { return whyNot_; }

  void remountReadOnly() const {
    ASSERT_EQ(0, ::mount(nullptr, dir_.c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr)) << std::strerror(errno);
  }

  /// Fills the file system to its last byte with the file "filler".
  void fillUp() const {
    int const fd = ::open((dir_ + "/filler").c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0);
    char const block[4096] = {};
    for (size_t size = sizeof block; size > 0; size /= 2)
      while (::write(fd, block, size) == ssize_t(size)) {}
    EXPECT_EQ(ENOSPC, errno);
    ::close(fd);
  }

private:
  std::string dir_;
  std::string whyNot_;
};

}  // namespace TarnTest
