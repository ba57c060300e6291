#include "mtd/TraceText.h"

#include "base/Text.h"

#include <algorithm>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <fcntl.h>
#include <linux/ioctl.h>
#include <mtd/mtd-user.h>

namespace {

const char *NullOrSet(std::uint64_t address) { return address == 0 ? "null" : "set"; }

std::string DescribeWrite(int device, const void *argument) {
    const auto *request = static_cast<const mtd_write_req *>(argument);
    return FormatText("%s mtd%d start=0x%" PRIx64 " len=%" PRIu64 " ooblen=%" PRIu64 " data=%s oob=%s mode=%u",
                      RequestName(RequestKind::WritePage), device, std::uint64_t{request->start},
                      std::uint64_t{request->len}, std::uint64_t{request->ooblen}, NullOrSet(request->usr_data),
                      NullOrSet(request->usr_oob), static_cast<unsigned>(request->mode));
}

std::string DescribeBadBlock(int device, const void *argument) {
    const auto offset = static_cast<std::uint64_t>(*static_cast<const loff_t *>(argument));
    return FormatText("%s mtd%d offset=0x%" PRIx64, RequestName(RequestKind::GetBadBlock), device, offset);
}

template <RequestKind kind, typename Range> std::string DescribeErase(int device, const void *argument) {
    const auto *range = static_cast<const Range *>(argument);
    return FormatText("%s mtd%d start=0x%" PRIx64 " length=0x%" PRIx64, RequestName(kind), device,
                      std::uint64_t{range->start}, std::uint64_t{range->length});
}

template <RequestKind kind> std::string DescribeOob(int device, const void *argument) {
    const auto *request = static_cast<const mtd_oob_buf64 *>(argument);
    return FormatText("%s mtd%d start=0x%" PRIx64 " length=%" PRIu32 " oob=%s", RequestName(kind), device,
                      std::uint64_t{request->start}, request->length, NullOrSet(request->usr_ptr));
}

constexpr MtdRequest kRequests[] = {
    {MEMWRITE, RequestKind::WritePage, DescribeWrite},
    {MEMGETBADBLOCK, RequestKind::GetBadBlock, DescribeBadBlock},
    {MEMERASE64, RequestKind::Erase64, DescribeErase<RequestKind::Erase64, erase_info_user64>},
    {MEMERASE, RequestKind::Erase, DescribeErase<RequestKind::Erase, erase_info_user>},
    {MEMWRITEOOB64, RequestKind::WriteOob, DescribeOob<RequestKind::WriteOob>},
    {MEMREADOOB64, RequestKind::ReadOob, DescribeOob<RequestKind::ReadOob>},
};

} // namespace

const MtdRequest *FindMtdRequest(unsigned long number) {
    const auto *end = std::end(kRequests);
    const auto *found =
        std::find_if(std::begin(kRequests), end, [number](const MtdRequest &known) { return known.number == number; });
    return found == end ? nullptr : found;
}

std::string ResultText(std::int64_t result, Base base) {
    if (result < 0)
        return " = -1 " + ErrnoName(static_cast<int>(-result));
    return base == Base::Hex ? FormatText(" = 0x%" PRIx64, static_cast<std::uint64_t>(result))
                             : FormatText(" = %" PRId64, result);
}

std::string QuotedText(const char *text) {
    if (text == nullptr)
        return "null";
    std::string quoted = "\"";
    for (; *text != '\0'; ++text) {
        if (*text == '\n') {
            quoted += "\\n";
            continue;
        }
        if (*text == '"' || *text == '\\')
            quoted += '\\';
        quoted += *text;
    }
    return quoted + '"';
}

std::string OpenFlagsText(int flags) {
    const struct {
        int flag;
        const char *name;
    } names[] = {{O_CREAT, "O_CREAT"},       {O_EXCL, "O_EXCL"}, {O_TRUNC, "O_TRUNC"},    {O_APPEND, "O_APPEND"},
                 {O_NONBLOCK, "O_NONBLOCK"}, {O_SYNC, "O_SYNC"}, {O_CLOEXEC, "O_CLOEXEC"}};
    const char *modes[] = {"O_RDONLY", "O_WRONLY", "O_RDWR", "O_ACCMODE"};
    std::string text = modes[flags & O_ACCMODE];
    for (const auto &row : names) {
        if ((flags & row.flag) == row.flag)
            text.append("|").append(row.name);
    }
    return text;
}
