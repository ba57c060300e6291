#include "mtd/SimState.h"

#include "base/Text.h"
#include "mtd/RunSteps.h"
#include "mtd/RunTimeline.h"
#include "mtd/Trace.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <unistd.h>

namespace {

constexpr char kRunMagic[16] = "flashsim run 03";
constexpr std::size_t kMaxDevices = 32;
constexpr std::size_t kMaxFaults = 64;
constexpr std::size_t kMaxName = 63;
constexpr std::uint32_t kMaxOpenFiles = 1 << 16;
constexpr std::size_t kMaxNotes = 60;
constexpr std::size_t kMaxNoteText = 127;
constexpr std::uint32_t kUnset = 0xFFFFFFFF;

using Counter = std::atomic<std::uint64_t>;
using Flag = std::atomic<std::uint32_t>;
static_assert(Counter::is_always_lock_free && Flag::is_always_lock_free, "processes share them");

struct StoredDevice {
    std::int32_t number;
    char name[kMaxName + 1];
    std::uint64_t offset;
    std::uint64_t size;
};

struct StoredNote {
    Flag isReady;
    ProgramNoteKind kind;
    char program[kMaxNoteText + 1];
    char subject[kMaxNoteText + 1];
};

/// The end of a text says more than its start: a program's name is at the end of a path.
void Store(char (&to)[kMaxNoteText + 1], const std::string &text) {
    const std::size_t start = text.size() > kMaxNoteText ? text.size() - kMaxNoteText : 0;
    to[text.copy(to, kMaxNoteText, start)] = '\0';
}

/// Ends the process with nothing tidied up, as a device without power does.
[[noreturn]] void EndHere() {
    std::raise(SIGKILL);
    std::abort(); // the first process of a namespace survives that signal
}

} // namespace

/// What the file holds; the trace follows it.
struct SimState::Shared {
    char magic[sizeof kRunMagic];
    std::uint64_t cutAtChange;
    Extent cutExtent;
    SimSettings::Record record;
    std::uint64_t traces; ///< 0 or 1
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
    MtdCounters counters[kMaxDevices];
    PageCache cache;
    Flag noteCount;
    StoredNote notes[kMaxNotes];
    Flag updaterProcess; ///< 0 for none yet
    Flag openFileCount;
    OpenFile openFiles[kMaxOpenFiles];
    StopPlace stop;

    /// Sets everything but the magic, the trace and its room.
    void Begin(const SimSettings &settings);
    char *TraceText() { return reinterpret_cast<char *>(this + 1); }
    /// Whatever programs in the sandbox wrote here, no more than the file has.
    std::size_t TraceLength(std::uint64_t room) const {
        return static_cast<std::size_t>(std::min({traceEnd.load(), traceReady.load(), room}));
    }
};

void SimState::Shared::Begin(const SimSettings &settings) {
    if (settings.devices.size() > kMaxDevices)
        throw std::runtime_error("more than " + std::to_string(kMaxDevices) + " devices");
    if (settings.faults.size() > kMaxFaults)
        throw std::runtime_error("more than " + std::to_string(kMaxFaults) + " faults");
    cutAtChange = settings.cutAtChange;
    cutExtent = settings.cutExtent;
    record = settings.record;
    traces = settings.traceLimit != 0 && record == SimSettings::Record::None ? 1 : 0;
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
    for (MtdCounters &counter : counters) {
        counter.corrected = 0;
        counter.failed = 0;
        counter.badBlocks = kUnset;
    }
    cache.page = PageCache::kNone;
    for (StoredNote &note : notes)
        note.isReady = 0;
    noteCount = 0;
    updaterProcess = 0;
    openFileCount = 0;
    stop.Clear();
}

void SimState::Create(const std::string &path, const SimSettings &settings) {
    const SharedFile file = SharedFile::Create(path, sizeof(Shared) + settings.traceLimit, sizeof(Shared));
    auto *shared = reinterpret_cast<Shared *>(file.Data());
    shared->Begin(settings);
    shared->traceLimit = settings.traceLimit;
    std::memcpy(shared->magic, kRunMagic, sizeof kRunMagic);
}

void SimState::Restart(const SimSettings &settings) {
    if (!m_file.IsWhole())
        throw std::runtime_error("a program of the update cut or lengthened the state of the run");
    // The rest has never been used, and would take room in memory by being cleared.
    std::memset(m_shared->TraceText(), 0, m_shared->TraceLength(TraceRoom()));
    m_shared->Begin(settings);
}

SimState::SimState(const std::string &path)
    : m_file(SharedFile::Open(path)), m_shared(reinterpret_cast<Shared *>(m_file.Data())) {
    const bool known = m_file.Size() >= sizeof(Shared) &&
                       std::memcmp(m_shared->magic, kRunMagic, sizeof kRunMagic) == 0 &&
                       m_file.Size() - sizeof(Shared) == m_shared->traceLimit && m_shared->deviceCount <= kMaxDevices &&
                       m_shared->faultCount <= kMaxFaults;
    if (!known)
        throw std::runtime_error(path + ": isn't the state of a simulated run");
}

std::vector<SimDevice> SimState::Devices() const {
    std::vector<SimDevice> devices;
    for (std::size_t i = 0; i < std::min<std::uint64_t>(m_shared->deviceCount, kMaxDevices); ++i) {
        const StoredDevice &stored = m_shared->devices[i];
        devices.push_back({stored.number, std::string(stored.name, strnlen(stored.name, sizeof stored.name)),
                           stored.offset, stored.size});
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

void SimState::BeginCounters(const NandChip &chip) {
    const std::uint32_t eraseSize = chip.Geometry().eraseSize;
    for (std::size_t i = 0; i < m_shared->deviceCount; ++i) {
        const StoredDevice &device = m_shared->devices[i];
        std::uint32_t unset = m_shared->counters[i].badBlocks;
        if (unset != kUnset)
            continue;
        std::uint32_t bad = 0;
        for (std::uint64_t offset = device.offset; offset < device.offset + device.size; offset += eraseSize)
            bad += chip.IsBad(static_cast<std::uint32_t>(offset / eraseSize)) ? 1 : 0;
        // Another process may have been faster, and have marked a block since.
        m_shared->counters[i].badBlocks.compare_exchange_strong(unset, bad);
    }
}

MtdCounters &SimState::Counters(std::size_t device) { return m_shared->counters[device]; }

PageCache &SimState::Cache() { return m_shared->cache; }

int SimState::Begin(RequestKind kind) {
    NeedPower();
    m_current = kind;
    const std::uint64_t number = ++m_shared->requests[static_cast<std::size_t>(kind)];
    if (Records()) {
        const std::vector<std::uint8_t> step =
            WriteStep(RunStep::Kind::Request, m_bIsUpdater, static_cast<std::uint32_t>(kind), nullptr, false);
        Append(reinterpret_cast<const char *>(step.data()), step.size());
    }
    for (std::size_t i = 0; i < std::min<std::uint64_t>(m_shared->faultCount, kMaxFaults); ++i) {
        const SimFault &fault = m_shared->faults[i];
        if (fault.kind == kind && (fault.nth == 0 || fault.nth == number))
            return fault.error;
    }
    return 0;
}

StopPlace &SimState::Stop() { return m_shared->stop; }

bool SimState::IsAtStop() const { return m_bIsUpdater && m_shared->stop.IsAt(m_current, Requests(m_current)); }

/// @return the bytes of the shared part that runs change: all before the first unused open file description.
std::size_t SimState::RunSize() const {
    const std::size_t used = std::min(m_shared->openFileCount.load(), kMaxOpenFiles);
    return static_cast<std::size_t>(reinterpret_cast<const std::uint8_t *>(m_shared->openFiles + used) -
                                    reinterpret_cast<const std::uint8_t *>(m_shared));
}

SimState::Kept SimState::Keep() const {
    const auto *bytes = reinterpret_cast<const std::uint8_t *>(m_shared);
    return {{bytes, bytes + RunSize()}, m_shared->traceEnd};
}

void SimState::TakeBack(const Kept &kept) {
    const std::size_t end = m_shared->TraceLength(TraceRoom());
    std::copy(kept.bytes.begin(), kept.bytes.end(), reinterpret_cast<std::uint8_t *>(m_shared));
    if (kept.traceEnd < end)
        std::memset(m_shared->TraceText() + kept.traceEnd, 0, end - static_cast<std::size_t>(kept.traceEnd));
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
    const std::uint32_t request = m_shared->cutRequest;
    std::snprintf(place, sizeof place, "%s at 0x%" PRIx64,
                  request < kRequestKinds ? RequestName(static_cast<RequestKind>(request)) : "?",
                  m_shared->cutOffset.load());
    return place;
}

bool SimState::Traces() const { return m_shared->traces != 0; }

bool SimState::Records() const { return m_shared->record != SimSettings::Record::None; }

std::uint64_t SimState::TraceRoom() const { return m_file.Size() - sizeof(Shared); }

bool SimState::HasTraceRoom(std::uint64_t end) {
    constexpr std::uint64_t kPart = 1 << 16;
    std::uint64_t ready = m_shared->traceReady;
    if (m_shared->traceIsFull != 0 || end > std::min(m_shared->traceLimit, TraceRoom()))
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

void SimState::Append(const char *bytes, std::uint64_t length) {
    const std::uint64_t start = m_shared->traceEnd.fetch_add(length);
    if (!HasTraceRoom(start + length)) {
        m_shared->traceIsFull = 1;
        return;
    }
    std::memcpy(m_shared->TraceText() + start, bytes, static_cast<std::size_t>(length));
}

void SimState::Trace(const std::string &line) {
    const std::string whole = line + '\n';
    Append(whole.data(), whole.size());
}

const std::uint8_t *SimState::RecordBytes(std::size_t &length) const {
    length = m_shared->traceIsFull == 0 ? m_shared->TraceLength(TraceRoom()) : 0;
    return reinterpret_cast<const std::uint8_t *>(m_shared->TraceText());
}

void SimState::Saw(const ChipAccess &access) {
    if (!Records()) {
        RecordChange(access);
        return;
    }
    constexpr RunStep::Kind kKinds[] = {RunStep::Kind::AskBad, RunStep::Kind::Read, RunStep::Kind::Erase,
                                        RunStep::Kind::Program, RunStep::Kind::MarkBad};
    const std::vector<std::uint8_t> step =
        WriteStep(kKinds[static_cast<std::size_t>(access.kind)], m_bIsUpdater, access.place, access.program,
                  m_shared->record == SimSettings::Record::StepsWithBytes);
    Append(reinterpret_cast<const char *>(step.data()), step.size());
}

void SimState::RecordChange(const ChipAccess &access) {
    if (access.kind == AccessKind::AskBad || access.kind == AccessKind::Read)
        return;
    RunChange change = {access.kind, m_bIsUpdater, access.place};
    if (access.program != nullptr) {
        change.withEcc = access.program->withEcc;
        change.hasData = access.program->data != nullptr && access.program->length > 0;
        change.hasOob = access.program->oob != nullptr && access.program->oobLength > 0;
    }
    Record(change.Line());
}

std::string SimState::TraceText() const { return KeptLines(Lines::OfTrace); }

void SimState::Record(const std::string &line) { Trace(kRecordMark + line); }

std::string SimState::RecordText() const { return KeptLines(Lines::OfRecord); }

std::string SimState::WholeText() const { return KeptLines(Lines::All); }

/// @return lines of the record, without their mark unless all are wanted, or those of the trace.
std::string SimState::KeptLines(Lines wanted) const {
    std::string text;
    const char *const end = m_shared->TraceText() + m_shared->TraceLength(TraceRoom());
    for (const char *start = m_shared->TraceText(); start < end;) {
        const char *const lineEnd = std::find(start, end, '\n');
        const char *const next = lineEnd == end ? end : lineEnd + 1;
        // Lines that didn't fit, or whose writer was killed, left zeros.
        const char *const first = std::find_if(start, next, [](char character) { return character != '\0'; });
        const bool isRecord = first < next && *first == kRecordMark;
        if (wanted == Lines::All || isRecord == (wanted == Lines::OfRecord))
            std::remove_copy(first + (wanted == Lines::OfRecord ? 1 : 0), next, std::back_inserter(text), '\0');
        start = next;
    }
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

OpenFile &SimState::GetOpenFile(int number) {
    const auto index = static_cast<std::uint32_t>(number);
    if (index >= kMaxOpenFiles)
        EndHere(); // a descriptor that somebody forged
    return m_shared->openFiles[index];
}

void SimState::Note(std::uint64_t offset, const char *text) {
    if (!Traces())
        return;
    Trace(PageNoteText(offset, text));
}

void SimState::NoteProgram(const ProgramNote &note) {
    const std::uint32_t known = std::min<std::uint32_t>(m_shared->noteCount, kMaxNotes);
    StoredNote own = {};
    Store(own.program, note.program);
    Store(own.subject, note.subject);
    for (std::uint32_t i = 0; i < known; ++i) {
        const StoredNote &other = m_shared->notes[i];
        if (other.isReady != 0 && other.kind == note.kind && std::strcmp(other.program, own.program) == 0 &&
            std::strcmp(other.subject, own.subject) == 0)
            return;
    }
    const std::uint32_t place = m_shared->noteCount++;
    if (place >= kMaxNotes) {
        m_shared->noteCount = kMaxNotes;
        return;
    }
    StoredNote &stored = m_shared->notes[place];
    stored.kind = note.kind;
    std::memcpy(stored.program, own.program, sizeof own.program);
    std::memcpy(stored.subject, own.subject, sizeof own.subject);
    stored.isReady = 1;
}

std::vector<ProgramNote> SimState::ProgramNotes() const {
    std::vector<ProgramNote> notes;
    for (std::size_t i = 0; i < std::min<std::size_t>(m_shared->noteCount, kMaxNotes); ++i) {
        const StoredNote &stored = m_shared->notes[i];
        if (stored.isReady != 0)
            notes.push_back({stored.kind, stored.program, stored.subject});
    }
    return notes;
}

bool SimState::ClaimUpdater() {
    const auto own = static_cast<std::uint32_t>(getpid());
    std::uint32_t holder = m_shared->updaterProcess;
    while (holder == 0 || (holder != own && kill(static_cast<pid_t>(holder), 0) != 0 && errno == ESRCH)) {
        if (m_shared->updaterProcess.compare_exchange_strong(holder, own))
            return true;
    }
    return holder == own;
}

void SimState::HandOverUpdater() { m_shared->updaterProcess = 0; }

void SimState::SetProgram(const std::string &name, bool isUpdater, std::uint32_t eraseSize) {
    m_bIsUpdater = isUpdater;
    m_program = VisibleText(name); // a name is any bytes; the trace is lines
    m_eraseSize = eraseSize;
}

Extent SimState::BeginChange(std::uint64_t offset) {
    if (Traces() && m_eraseSize > 0 && !m_bIsUpdater && m_namedBlock != offset / m_eraseSize) {
        m_namedBlock = offset / m_eraseSize;
        Note(offset, (kChangedByNote + m_program).c_str());
    }
    return ++m_shared->changes == m_shared->cutAtChange ? m_shared->cutExtent : Extent::Whole;
}

void SimState::NotePowerCut(RequestKind request, std::uint64_t offset) {
    m_shared->cutRequest = static_cast<std::uint32_t>(request);
    m_shared->cutOffset = offset;
    m_shared->powerIsOff = 1;
}

void SimState::PowerOff(std::uint64_t offset) {
    NotePowerCut(m_current, offset);
    if (Traces())
        Trace("power cut during " + CutPlace());
    EndHere();
}
