#pragma once

#include <asio/basic_signal_set.hpp>
#include <asio/basic_waitable_timer.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/basic_stream_descriptor.hpp>
#include <chrono>

namespace vantrel {

// Asio's objects, bound to this kind of loop. The usual ones are for a loop of
// any kind: they allocate for each handler that they call, and lose the handler
// when there is no memory.
using LoopDescriptor =
    asio::posix::basic_stream_descriptor<asio::io_context::executor_type>;
using LoopSignals = asio::basic_signal_set<asio::io_context::executor_type>;
using LoopTimer =
    asio::basic_waitable_timer<std::chrono::steady_clock,
                               asio::wait_traits<std::chrono::steady_clock>,
                               asio::io_context::executor_type>;

}  // namespace vantrel
