#pragma once
// The agent's side of the hardware-access manager in tests: issue requests, wait on the
// managers' descriptors and dispatch what finished, on this (the owner's) thread.

#include "TarnRegFile/platform/Vorm.h"

#include <poll.h>

#include <algorithm>
#include <chrono>
#include <vector>

namespace TarnTest {

/// Issues a request of @p vorm for one register (a 2-byte offset on the wire).
inline Kiv::Ptr<Hardware::VormRequest> issue(Kiv::Ptr<Hardware::Vorm> const& vorm, Hardware::VormOp::Opcode opcode,
                                             U16 offset, U32* word, Hardware::U7 peripheral = Hardware::U7(0x50)) {
  auto r = vorm->newRequest();
  r->opIs(opcode, Hardware::SmbusAddress(offset, peripheral, 2), word, 1, 4, 4, 0);
  r->stateIs(1);
  return r;
}

/// Dispatches until @p done or @p limit has passed, waiting on the descriptors in between;
/// returns done().
template <class F>
bool runUntil(std::vector<Kiv::Ptr<Hardware::Vorm>> const& vorms, F done,
              std::chrono::seconds limit = std::chrono::seconds(20)) {
  auto const end = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < end) {
    std::vector<pollfd> fds;
    for (auto const& v : vorms) fds.push_back(pollfd{v->fd(), POLLIN, 0});
    ::poll(fds.data(), fds.size(), 100);
    for (size_t i = 0; i < fds.size(); ++i)
      if (fds[i].revents & POLLIN) vorms[i]->dispatch();
  }
  return done();
}

/// Dispatches until none of @p requests is in flight; false when the limit passed first.
inline bool finish(Kiv::Ptr<Hardware::Vorm> const& vorm, std::vector<Kiv::Ptr<Hardware::VormRequest>> const& requests) {
  return runUntil({vorm}, [&] {
    return std::none_of(requests.begin(), requests.end(),
                        [](auto const& r) { return r->status() == Hardware::VormRequest::kStatusIssued; });
  });
}

}  // namespace TarnTest
