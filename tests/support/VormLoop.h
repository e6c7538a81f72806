#pragma once
// The agent's side of the hardware-access manager in tests: wait on the managers'
// descriptors and dispatch what finished, on this (the owner's) thread.

#include "TarnRegFile/platform/Vorm.h"

#include <poll.h>

#include <chrono>
#include <vector>

namespace TarnTest {

/// Dispatches until @p done or @p limit has passed, waiting on the descriptors in between.
template <class F>
void runUntil(std::vector<Kiv::Ptr<Hardware::Vorm>> const& vorms, F done,
              std::chrono::seconds limit = std::chrono::seconds(20)) {
  auto const end = std::chrono::steady_clock::now() + limit;
  while (!done() && std::chrono::steady_clock::now() < end) {
    std::vector<pollfd> fds;
    for (auto const& v : vorms) fds.push_back(pollfd{v->fd(), POLLIN, 0});
    ::poll(fds.data(), fds.size(), 100);
    for (size_t i = 0; i < fds.size(); ++i)
      if (fds[i].revents & POLLIN) vorms[i]->dispatch();
  }
}

}  // namespace TarnTest
