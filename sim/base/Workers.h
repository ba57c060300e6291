#pragma once

#include "base/HeldSignals.h"

#include <cstddef>
#include <functional>
#include <string>

/// @return how many cores this process may use.
unsigned CoreCount();

/// Does one job of a worker. @return what came of it, up to 64 KiB of any bytes.
using WorkerJob = std::function<std::string(std::size_t number)>;

/// Spreads the jobs 0 to count - 1 over processes of their own; each takes the next one as it gets free.
/// The caller has one thread. No process is left when it returns, whichever way.
/// @param setUp called once in each worker with its number, from 0; what it makes ends with the worker
/// @param take gets each job's result in the caller's process, in the order in which they come
/// @param signals a held signal ends all workers where they are
/// @return false when a signal has come before all was done.
/// @throws std::runtime_error with what went wrong in a worker
bool DoInWorkers(std::size_t count, unsigned workers, const HeldSignals &signals,
                 const std::function<WorkerJob(unsigned worker)> &setUp,
                 const std::function<void(std::size_t number, const std::string &result)> &take);
