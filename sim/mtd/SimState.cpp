#include "mtd/SimState.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>

namespace {

constexpr const char *kRequestNames[] = {
    "open",           "lseek",      "read",     "write",    "fsync",         "close",
    "MEMGETBADBLOCK", "MEMERASE64", "MEMERASE", "MEMWRITE", "MEMWRITEOOB64", "MEMREADOOB64",
};
static_assert(sizeof kRequestNames / sizeof *kRequestNames == kRequestKinds);

constexpr char kMagic[16] = "flashsim run 01";
constexpr std::size_t kMaxDevices = 32;
constexpr std::size_t kMaxFaults = 64;
constexpr std::size_t kMaxName = 63;
constexpr std::uint32_t kMaxOpenFiles = 1 << 16;
constexpr int kErrnoEnd = 4096;

using Counter = std::atomic<std::uint64_t>;
using Flag = std::atomic<std::uint32_t>;
static_assert(Counter::is_always_lock_free && Flag::is_always_lock_free, "processes share them");

struct StoredDevice {
    std::int32_t number;
    char name[kMaxName + 1];
    std::uint64_t offset;
    std::uint64_t size;
};

/// Reads a whole text as a decimal number.
bool ParseNumber(const std::string &text, std::uint64_t &number) {
    constexpr std::size_t kMostDigits = 18;
    if (text.empty() || text.size() > kMostDigits || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    number = std::strtoull(text.c_str(), nullptr, 10);
    return true;
}

/// @return the errno value of a name or number, 0 when there is none such.
int ParseErrno(const std::string &text) {
    std::uint64_t number = 0;
    if (ParseNumber(text, number))
        return number < kErrnoEnd ? static_cast<int>(number) : 0;
    for (int error = 1; error < kErrnoEnd; ++error) {
        const char *name = strerrorname_np(error);
        if (name != nullptr && text == name)
            return error;
    }
    return 0;
}

/// Ends the process with nothing tidied up, as a device without power does.
[[noreturn]] void EndHere() {
    std::raise(SIGKILL);
    std::abort(); // the first process of a namespace survives that signal
}

} // namespace

/// What the file holds; the trace follows it.
struct SimState::Shared {
    char magic[sizeof kMagic];
    std::uint64_t cutAtChange;
    std::uint64_t traceLimit;
    std::uint64_t deviceCount;
    std::uint64_t faultCount;
    StoredDevice devices[kMaxDevices];
    SimFault faults[kMaxFaults];
    Counter requests[kRequestKinds];
    Counter changes;
    Counter traceEnd;   ///< grows on when the trace is full: the end of what was wanted
    Counter traceReady; ///< bytes that have their room, which they keep
    Counter cutOffset;
    Flag cutRequest;
    Flag powerIsOff;
    Flag traceIsFull;
    Flag openFileCount;
    OpenFile openFiles[kMaxOpenFiles];

    /// Sets everything but the magic, the trace and its room.
    void Begin(const SimSettings &settings);
    char *TraceText() { return reinterpret_cast<char *>(this + 1); }
    std::size_t TraceLength() const { return static_cast<std::size_t>(std::min<std::uint64_t>(traceEnd, traceReady)); }
};

void SimState::Shared::Begin(const SimSettings &settings) {
    if (settings.devices.size() > kMaxDevices)
        throw std::runtime_error("more than " + std::to_string(kMaxDevices) + " devices");
    if (settings.faults.size() > kMaxFaults)
        throw std::runtime_error("more than " + std::to_string(kMaxFaults) + " faults");
    cutAtChange = settings.cutAtChange;
    deviceCount = 0;
    for (const SimDevice &device : settings.devices) {
        if (device.name.size() > kMaxName)
            throw std::runtime_error("a device name of more than " + std::to_string(kMaxName) + " characters");
        StoredDevice &stored = devices[deviceCount++];
        stored = {device.number, {}, device.offset, device.size};
        device.name.copy(stored.name, kMaxName);
    }
    faultCount = 0;
    for (const SimFault &fault : settings.faults)
        faults[faultCount++] = fault;
    for (Counter &count : requests)
        count = 0;
    changes = 0;
    traceEnd = 0;
    traceIsFull = 0;
    powerIsOff = 0;
    openFileCount = 0;
}

const char *RequestName(RequestKind kind) { return kRequestNames[static_cast<std::size_t>(kind)]; }

std::string ErrnoName(int error) {
    const char *name = strerrorname_np(error);
    return name != nullptr ? name : std::to_string(error);
}

bool ParseFault(const std::string &text, SimFault &fault) {
    const std::size_t equals = text.find('=');
    if (equals == std::string::npos)
        return false;
    const std::size_t colon = std::min(text.find(':'), equals);
    const auto *end = std::end(kRequestNames);
    const auto *name = std::find(std::begin(kRequestNames), end, text.substr(0, colon));
    SimFault parsed = {};
    parsed.error = ParseErrno(text.substr(equals + 1));
    if (name == end || parsed.error == 0)
        return false;
    if (colon < equals && (!ParseNumber(text.substr(colon + 1, equals - colon - 1), parsed.nth) || parsed.nth == 0))
        return false;
    parsed.kind = static_cast<RequestKind>(name - std::begin(kRequestNames));
    fault = parsed;
    return true;
}

void SimState::Create(const std::string &path, const SimSettings &settings) {
    const SharedFile file = SharedFile::Create(path, sizeof(Shared) + settings.traceLimit, sizeof(Shared));
    auto *shared = reinterpret_cast<Shared *>(file.Data());
    shared->Begin(settings);
    shared->traceLimit = settings.traceLimit;
    std::memcpy(shared->magic, kMagic, sizeof kMagic);
}

void SimState::Restart(const SimSettings &settings) {
    // The rest has never been used, and would take room in memory by being cleared.
    std::memset(m_shared->TraceText(), 0, m_shared->TraceLength());
    m_shared->Begin(settings);
}

SimState::SimState(const std::string &path)
    : m_file(SharedFile::Open(path)), m_shared(reinterpret_cast<Shared *>(m_file.Data())) {
    const bool known = m_file.Size() >= sizeof(Shared) && std::memcmp(m_shared->magic, kMagic, sizeof kMagic) == 0 &&
                       m_file.Size() - sizeof(Shared) == m_shared->traceLimit && m_shared->deviceCount <= kMaxDevices &&
                       m_shared->faultCount <= kMaxFaults;
    if (!known)
        throw std::runtime_error(path + ": isn't the state of a simulated run");
}

std::vector<SimDevice> SimState::Devices() const {
    std::vector<SimDevice> devices;
    for (std::size_t i = 0; i < m_shared->deviceCount; ++i) {
        const StoredDevice &stored = m_shared->devices[i];
        devices.push_back({stored.number, stored.name, stored.offset, stored.size});
    }
    return devices;
}

std::string SimState::DeviceTable(std::uint32_t eraseSize) const {
    std::string table = "dev:    size   erasesize  name\n";
    for (const SimDevice &device : Devices()) {
        char numbers[64];
        std::snprintf(numbers, sizeof numbers, "mtd%d: %08" PRIx64 " %08" PRIx32, device.number, device.size,
                      eraseSize);
        table.append(numbers).append(" \"").append(device.name).append("\"\n");
    }
    return table;
}

int SimState::Begin(RequestKind kind) {
    NeedPower();
    m_current = kind;
    const std::uint64_t number = ++m_shared->requests[static_cast<std::size_t>(kind)];
    for (std::size_t i = 0; i < m_shared->faultCount; ++i) {
        const SimFault &fault = m_shared->faults[i];
        if (fault.kind == kind && (fault.nth == 0 || fault.nth == number))
            return fault.error;
    }
    return 0;
}

std::uint64_t SimState::Requests(RequestKind kind) const { return m_shared->requests[static_cast<std::size_t>(kind)]; }

std::uint64_t SimState::Changes() const { return m_shared->changes; }

bool SimState::PowerWasCut() const { return m_shared->powerIsOff != 0; }

void SimState::NeedPower() const {
    if (PowerWasCut())
        EndHere();
}

std::string SimState::CutPlace() const {
    if (!PowerWasCut())
        return "";
    char place[64];
    std::snprintf(place, sizeof place, "%s at 0x%" PRIx64, kRequestNames[m_shared->cutRequest],
                  m_shared->cutOffset.load());
    return place;
}

bool SimState::Traces() const { return m_shared->traceLimit != 0; }

bool SimState::HasTraceRoom(std::uint64_t end) {
    constexpr std::uint64_t kPart = 1 << 16;
    std::uint64_t ready = m_shared->traceReady;
    if (m_shared->traceIsFull != 0 || end > m_shared->traceLimit)
        return false;
    if (end <= ready)
        return true;
    const std::uint64_t wanted = std::min((end / kPart + 1) * kPart, m_shared->traceLimit);
    if (!m_file.MakeReady(sizeof(Shared) + ready, sizeof(Shared) + wanted))
        return false;
    // Another process may have come further meanwhile.
    while (ready < wanted && !m_shared->traceReady.compare_exchange_weak(ready, wanted))
        continue;
    return true;
}

void SimState::Trace(const std::string &line) {
    const std::uint64_t length = line.size() + 1;
    const std::uint64_t start = m_shared->traceEnd.fetch_add(length);
    if (!HasTraceRoom(start + length)) {
        m_shared->traceIsFull = 1;
        return;
    }
    char *text = m_shared->TraceText() + start;
    line.copy(text, line.size());
    text[line.size()] = '\n';
}

std::string SimState::TraceText() const {
    std::string text(m_shared->TraceText(), m_shared->TraceLength());
    // Lines that didn't fit, or whose writer was killed, left zeros.
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    return text;
}

bool SimState::TraceOverflowed() const { return m_shared->traceIsFull != 0 && Traces(); }

int SimState::NewOpenFile(const OpenFile &file) {
    const std::uint32_t number = m_shared->openFileCount++;
    if (number >= kMaxOpenFiles) {
        m_shared->openFileCount = kMaxOpenFiles;
        return -1;
    }
    m_shared->openFiles[number] = file;
    return static_cast<int>(number);
}

OpenFile &SimState::GetOpenFile(int number) { return m_shared->openFiles[number]; }

void SimState::Note(std::uint64_t offset, const char *text) {
    if (!Traces())
        return;
    char place[64];
    std::snprintf(place, sizeof place, "note: page at 0x%" PRIx64 " ", offset);
    Trace(std::string(place) + text);
}

Extent SimState::BeginChange() {
    return ++m_shared->changes == m_shared->cutAtChange ? Extent::FirstHalf : Extent::Whole;
}

void SimState::PowerOff(std::uint64_t offset) {
    m_shared->cutRequest = static_cast<std::uint32_t>(m_current);
    m_shared->cutOffset = offset;
    m_shared->powerIsOff = 1;
    if (Traces())
        Trace("power cut during " + CutPlace());
    EndHere();
}
