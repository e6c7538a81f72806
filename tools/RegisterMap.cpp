#include "RegisterMap.h"

#include "ToolError.h"

#include "TarnRegFile/Utils.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <stdexcept>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Tarnreg {

namespace {

constexpr std::string_view kCsvHeader = "number,name,type,writeable,width";

// The loader's "Error opening CSV file" hides why; the system says it. Returns an
// empty text when the file can be opened (the fault is then in its contents).
std::string whyUnreadable(std::string const& path) {
  int const fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (fd < 0) return std::strerror(errno);
  struct stat st;
  bool const isDirectory = ::fstat(fd, &st) == 0 && S_ISDIR(st.st_mode);
  ::close(fd);
  return isDirectory ? "it is a directory" : "";
}

// The loader says what is wrong but not where. Parsing the file again line by line
// with the same record parser finds the first line it refuses, which is the line
// that stopped the load. Returns 0 when no single line is at fault.
size_t firstRefusedLine(std::string const& path, U8 addrBlockSize) {
  std::ifstream in(path);
  std::string buffer;
  std::string_view line;
  size_t number = 1;
  if (!TarnRegFile::Utils::getline_lea(in, buffer, line) || line != kCsvHeader) return number;
  while (TarnRegFile::Utils::getline_lea(in, buffer, line)) {
    ++number;
    try {
      TarnRegFile::Register const reg(line, addrBlockSize);
    } catch (std::runtime_error const&) {
      return number;
    }
  }
  return 0;
}

}  // namespace

// The file is opened once when all is well; only a failure is looked into further.
RegisterMap::RegisterMap(std::string path, U8 addrBlockSize) : path_(std::move(path)) {
  try {
    file_ = std::make_unique<TarnRegFile::RegisterFile const>(path_.c_str(), addrBlockSize);
  } catch (std::runtime_error const& e) {
    if (auto const why = whyUnreadable(path_); !why.empty())
      throw ToolError::failure(fmt::format("cannot open map {}: {}", path_, why));
    size_t const line = firstRefusedLine(path_, addrBlockSize);
    if (line == 0) throw ToolError::failure(fmt::format("map {}: {}", path_, e.what()));
    throw ToolError::failure(fmt::format("map {}, line {}: {}", path_, line, e.what()));
  }
  sorted_.reserve(file_->size());
  for (auto const& entry : file_->registers()) sorted_.push_back(&entry.second);
  std::sort(sorted_.begin(), sorted_.end(), [](auto const* a, auto const* b) {
    return a->number != b->number ? a->number < b->number : a->name < b->name;
  });
}

TarnRegFile::Register const& RegisterMap::find(std::string_view name) const {
  if (!file_->hasRegName(name))
    throw ToolError::failure(fmt::format("no register '{}' in map {}", name, path_));
  return file_->findRegisterByName(name);
}

std::string const& RegisterMap::nameAt(U32 address) const {
  auto const& names = file_->namesByAddress();
  auto const it = names.find(address);
  if (it == names.end())
    throw ToolError::failure(fmt::format("no register at address {:#x} in map {}", address, path_));
  return it->second;
}

}  // namespace Tarnreg
