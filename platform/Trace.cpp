#include "Trace.h"

#include <fnmatch.h>
#include <sys/time.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <ctime>
#include <mutex>

namespace Kiv {
namespace {

struct Rule {
  std::string pattern;
  uint32_t mask;
};

// Fixed-size slots: recording a line never allocates once the ring exists.
constexpr size_t kRingSlots = 1024;
constexpr size_t kSlotBytes = 240;

struct RingSlot {
  uint64_t sequence = 0;
  char text[kSlotBytes] = {};
};

struct Registry {
  std::mutex mutex;  // guards configuration changes, never taken on the line path when disabled
  std::vector<TraceHandle*> handles;
  std::vector<Rule> textRules;
  std::vector<Rule> ringRules{{"*", Trace::upTo(2)}};
  std::vector<TraceCapture*> captures;
  std::FILE* textOutput = stderr;
  std::array<RingSlot, kRingSlots> ring;
  std::atomic<uint64_t> ringNext{0};
};

Registry& registry() {
  static Registry* r = new Registry;  // never destroyed: handles in other units outlive static teardown order
  return *r;
}

bool globMatch(std::string const& pattern, char const* unit) {
  return fnmatch(pattern.c_str(), unit, 0) == 0;
}

uint32_t ruleMask(std::vector<Rule> const& rules, char const* unit) {
  uint32_t mask = 0;
  bool matched = false;
  for (auto const& rule : rules) {  // the last matching rule wins
    if (globMatch(rule.pattern, unit)) {
      mask = rule.mask;
      matched = true;
    }
  }
  return matched ? mask : 0;
}

void refreshAll(Registry& r) {
  for (auto* h : r.handles) h->refresh();
}

// "HH:MM:SS.uuuuuu" into a caller buffer: no allocation on the line path.
struct Stamp {
  char text[24];
  Stamp() {
    timeval tv{};
    gettimeofday(&tv, nullptr);
    std::tm tm{};
    time_t secs = tv.tv_sec;
    localtime_r(&secs, &tm);
    auto end = fmt::format_to_n(text, sizeof text - 1, "{:02}:{:02}:{:02}.{:06}", tm.tm_hour, tm.tm_min,
                                tm.tm_sec, static_cast<long>(tv.tv_usec));
    *end.out = '\0';
  }
};

}  // namespace

TraceHandle::TraceHandle(char const* unit) : unit_(unit) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.handles.push_back(this);
  refresh();
}

TraceHandle::~TraceHandle() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.handles.erase(std::remove(r.handles.begin(), r.handles.end(), this), r.handles.end());
}

void TraceHandle::refresh() {
  auto& r = registry();
  ringMask_ = ruleMask(r.ringRules, unit_);
  textMask_ = ruleMask(r.textRules, unit_);
  uint32_t captureMask = 0;
  for (auto* c : r.captures)
    if (c->matches(unit_)) captureMask |= c->levelMask();
  mask_.store(ringMask_ | textMask_ | captureMask, std::memory_order_relaxed);
}

void TraceHandle::vline(unsigned level, char const* function, fmt::string_view format, fmt::format_args args) {
  fmt::memory_buffer text;  // inline storage: short lines never allocate
  try {
    fmt::vformat_to(std::back_inserter(text), format, args);
  } catch (fmt::format_error const& e) {
    text.clear();
    fmt::format_to(std::back_inserter(text), "<bad trace format: {}>", e.what());
  }
  emit(level, function, std::string_view(text.data(), text.size()));
}

void TraceHandle::vprintf(unsigned level, char const* format, fmt::format_args args) {
  // Translate the printf conversions into "{}" replacement fields. %s accepts any
  // argument (the runtime's types print their text form), so callers need not care.
  std::string translated;
  int index = 0;
  for (char const* p = format; *p; ++p) {
    char c = *p;
    if (c == '{' || c == '}') {
      translated += c;
      translated += c;
      continue;
    }
    if (c != '%') {
      translated += c;
      continue;
    }
    ++p;
    if (*p == '%') {
      translated += '%';
      continue;
    }
    bool alternate = false;
    if (*p == '#') {
      alternate = true;
      ++p;
    }
    while (*p == 'l' || *p == 'h' || *p == 'z') ++p;  // length modifiers carry no meaning here
    if (!*p) break;
    switch (*p) {
      case 'x':
        translated += fmt::format(fmt::runtime(alternate ? "{{{}:#x}}" : "{{{}:x}}"), index++);
        break;
      case 'X':
        translated += fmt::format(fmt::runtime(alternate ? "{{{}:#X}}" : "{{{}:X}}"), index++);
        break;
      default:  // s d i u c p
        translated += fmt::format("{{{}}}", index++);
        break;
    }
  }
  vline(level, nullptr, translated, args);
}

void TraceHandle::emit(unsigned level, char const* function, std::string_view text) {
  auto& r = registry();
  std::string_view const fn = function ? std::string_view(function) : std::string_view();
  Stamp const now;
  if ((ringMask_ >> level) & 1u) {
    uint64_t seq = r.ringNext.fetch_add(1, std::memory_order_relaxed);
    RingSlot& slot = r.ring[seq % kRingSlots];
    slot.sequence = seq + 1;
    auto end = fmt::format_to_n(slot.text, kSlotBytes - 1, "{} {} L{} {}{}{}", now.text, unit_, level, fn,
                                fn.empty() ? "" : ": ", text);
    *end.out = '\0';
  }
  if ((textMask_ >> level) & 1u) {
    std::lock_guard lock(r.mutex);
    fmt::print(r.textOutput, "{} {} L{} {}{}{}\n", now.text, unit_, level, fn, fn.empty() ? "" : ": ", text);
    std::fflush(r.textOutput);
  }
  if (!r.captures.empty()) {
    std::lock_guard lock(r.mutex);
    for (auto* c : r.captures)
      if (c->matches(unit_) && ((c->levelMask() >> level) & 1u))
        c->add(TraceRecord{unit_, level, std::string(fn), std::string(text)});
  }
}

namespace Trace {

void textLevelsIs(std::string const& pattern, uint32_t levelMask) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.textRules.push_back({pattern, levelMask});
  refreshAll(r);
}

void ringLevelsIs(std::string const& pattern, uint32_t levelMask) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.ringRules.push_back({pattern, levelMask});
  refreshAll(r);
}

void textOutputIs(std::FILE* out) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.textOutput = out ? out : stderr;
}

std::vector<std::string> ringLines() {
  auto& r = registry();
  std::vector<std::string> lines;
  uint64_t next = r.ringNext.load(std::memory_order_relaxed);
  uint64_t first = next > kRingSlots ? next - kRingSlots : 0;
  for (uint64_t seq = first; seq < next; ++seq) {
    RingSlot const& slot = r.ring[seq % kRingSlots];
    if (slot.sequence == seq + 1) lines.emplace_back(slot.text);
  }
  return lines;
}

void ringDump(std::FILE* out) {
  for (auto const& line : ringLines()) fmt::print(out, "{}\n", line);
  std::fflush(out);
}

void ringClear() {
  auto& r = registry();
  for (auto& slot : r.ring) slot.sequence = 0;
}

std::vector<std::string> units() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  std::vector<std::string> names;
  for (auto* h : r.handles) names.emplace_back(h->unit());
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

}  // namespace Trace

TraceCapture::TraceCapture(std::string pattern, uint32_t levelMask)
    : pattern_(std::move(pattern)), levelMask_(levelMask) {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.captures.push_back(this);
  refreshAll(r);
}

TraceCapture::~TraceCapture() {
  auto& r = registry();
  std::lock_guard lock(r.mutex);
  r.captures.erase(std::remove(r.captures.begin(), r.captures.end(), this), r.captures.end());
  refreshAll(r);
}

bool TraceCapture::matches(char const* unit) const { return globMatch(pattern_, unit); }

bool TraceCapture::contains(std::string_view text, int level) const {
  for (auto const& rec : records_)
    if ((level < 0 || rec.level == static_cast<unsigned>(level)) && rec.text.find(text) != std::string::npos)
      return true;
  return false;
}

size_t TraceCapture::count(std::string_view text) const {
  size_t n = 0;
  for (auto const& rec : records_)
    if (rec.text.find(text) != std::string::npos) ++n;
  return n;
}

}  // namespace Kiv
