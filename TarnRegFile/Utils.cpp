#include "TarnRegFile/Utils.h"

#include <fmt/format.h>

#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace TarnRegFile::Utils {

bool tokenize(std::string_view const& text, U32& pos, std::string_view& token, char sep) {
  if (pos >= text.size()) return false;
  size_t end = text.find(sep, pos);
  if (end == std::string_view::npos) end = text.size();
  token = text.substr(pos, end - pos);
  pos = static_cast<U32>(end + 1);
  return true;
}

std::istream& getline_lea(std::istream& in, std::string& buffer, std::string_view& line) {
  std::getline(in, buffer, in.widen('\n'));
  if (in.fail()) {  // fail() also covers bad()
    line = std::string_view();
    return in;
  }
  line = buffer;
  if (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  return in;
}

U32 strtouint32_checked(char const* text, bool& ok) {
  ok = false;
  if (text == nullptr) return 0;
  char* end = nullptr;
  errno = 0;
  unsigned long const result = std::strtoul(text, &end, 10);
  if (end == text || *end != '\0' || errno == ERANGE) return 0;
  if constexpr (sizeof(unsigned long) > sizeof(U32)) {
    // A wider unsigned long would accept magnitudes that a 32-bit conversion
    // rejects; keep the 32-bit behaviour on every build: the magnitude must fit in
    // 32 bits and a leading '-' negates modulo 2^32.
    char const* p = text;
    while (*p != '\0' && std::strchr(" \t\n\v\f\r", *p) != nullptr) ++p;
    unsigned long const magnitude = *p == '-' ? 0ul - result : result;
    if (magnitude > std::numeric_limits<U32>::max()) return 0;
  }
  ok = true;
  return static_cast<U32>(result);
}

int32_t syscallAutoRetry(std::function<int32_t()> const& call, bool retryOnEagain, bool retryOnEintr) {
  for (;;) {
    int32_t const result = call();
    if (result >= 0) return result;
    int const err = errno;
    if (err == EINTR && retryOnEintr) continue;
    if (err == EAGAIN && retryOnEagain) {
      ::usleep(1000);
      continue;
    }
    return result;
  }
}

std::string errnoMsg() noexcept {
  int const err = errno;
  try {
    return fmt::format("{} ({})", std::strerror(err), err);
  } catch (...) {
    return std::string();
  }
}

int32_t UnixFdRes::_mov(UnixFdRes& other) noexcept {
  reset();
  Kiv::Fd::operator=(std::move(other));
  return get();
}

int32_t UnixFdRes::_destruct() noexcept {
  if (!*this) return get();
  return ::close(release());
}

UnixFlockRes::UnixFlockRes(int32_t fd, int32_t mode) {
  if (fd < 0) throw std::runtime_error("Invalid fd");
  if ((mode & (LOCK_SH | LOCK_EX)) == 0) throw std::runtime_error("Unsupported lock mode");
  if (mode & LOCK_UN) throw std::runtime_error("Cannot unlock flock on constructor");
  // A contended LOCK_NB request fails with EAGAIN and is polled every millisecond.
  int32_t const result = syscallAutoRetry([fd, mode] { return ::flock(fd, mode); }, true, true);
  if (result < 0) throw std::runtime_error(std::string("flock error: ") + std::strerror(errno));
  adopt(fd);
}

}  // namespace TarnRegFile::Utils
