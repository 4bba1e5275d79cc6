// Request queues of a chosen size, as the agent keeps them, for the archive's tests and
// the benchmark.
#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "archive/TavloCodable.h"

/// `requests` requests of `parameters` parameters each, followed by the queue's marker.
/// Requests alternate between audience and streaming, share their authorisation and
/// tagger records by groups, and carry creation and failure dates. With `uniqueValues`
/// every parameter value differs from every other; otherwise most values repeat across
/// requests (application, device, page names) and a few are each request's own (time
/// stamps, counters), as in a real queue.
std::vector<std::shared_ptr<TavloCodable>> TavloSampleQueue(std::size_t requests, std::size_t parameters,
                                                            bool uniqueValues);
