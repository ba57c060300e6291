#include "board/BoardFinds.h"

#include "base/Text.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <stdexcept>

using nlohmann::ordered_json;

namespace {

constexpr std::size_t kSumLength = 64;
constexpr std::size_t kSumGap = 2; ///< two blanks, or a blank and an asterisk

struct SummedFile {
    std::string sum;
    std::string path;
};

/// Reads a line of sha256sum. A path that begins with "./" loses it.
std::optional<SummedFile> ReadSum(const std::string &line) {
    if (line.size() <= kSumLength + kSumGap || line[kSumLength] != ' ' ||
        std::string(" *").find(line[kSumLength + 1]) == std::string::npos ||
        line.find_first_not_of("0123456789abcdef") != kSumLength)
        return std::nullopt;
    std::string path = line.substr(kSumLength + kSumGap);
    if (path.rfind("./", 0) == 0)
        path.erase(0, 2);
    return SummedFile{line.substr(0, kSumLength), path};
}

bool HasMore(std::istringstream &words, std::string &rest) {
    rest.clear();
    std::getline(words >> std::ws, rest);
    return !rest.empty();
}

/// @return what is wrong with an expected file; empty for nothing.
std::string Mismatch(const BoardFinds &finds, const ExpectedFile &expected) {
    bool isMounted = false;
    std::string other;
    for (const BoardFinds::Partition &partition : finds.partitions) {
        for (const BoardFinds::Volume &volume : partition.volumes) {
            if (volume.name != expected.volume || !volume.refusal.empty())
                continue;
            isMounted = true;
            const auto file = std::find_if(volume.files.begin(), volume.files.end(),
                                           [&](const BoardFinds::File &it) { return it.path == expected.path; });
            if (file == volume.files.end())
                continue;
            if (file->sum == expected.sum)
                return "";
            other = file->sum;
        }
    }
    const std::string name = expected.volume + "/" + expected.path;
    if (!isMounted)
        return name + " is expected, and the board's kernel mounts no volume " + expected.volume;
    return other.empty() ? name + " is missing" : name + " has the SHA-256 " + other + ", not " + expected.sum;
}

} // namespace

std::vector<ExpectedFile> ReadExpectedFiles(const std::string &path) {
    std::ifstream file(path);
    if (!file)
        throw std::invalid_argument("can't read " + path);
    std::vector<ExpectedFile> expected;
    std::size_t number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (line.empty())
            continue;
        const std::optional<SummedFile> summed = ReadSum(line);
        const std::size_t slash = summed ? summed->path.find('/') : std::string::npos;
        if (slash == std::string::npos || slash == 0 || slash + 1 == summed->path.size())
            throw std::invalid_argument(path + ":" + std::to_string(number) +
                                        ": not a line of sha256sum with a path VOLUME/PATH");
        expected.push_back({summed->sum, summed->path.substr(0, slash), summed->path.substr(slash + 1)});
    }
    if (expected.empty())
        throw std::invalid_argument(path + " expects no file");
    return expected;
}

void ReadFound(const std::string &text, BoardFinds &finds) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word, rest;
        words >> word;
        if (word == "attached" || word == "refused") {
            BoardFinds::Partition partition;
            words >> partition.device;
            if (word == "refused")
                partition.refusal = HasMore(words, rest) ? rest : "no reason given";
            finds.partitions.push_back(partition);
        } else if (word == "environment") {
            BoardFinds::Environment environment;
            words >> environment.offset >> environment.size;
            finds.environments.push_back(environment);
        } else if (word == "variable" && !finds.environments.empty() && HasMore(words, rest)) {
            finds.environments.back().variables.push_back(rest);
        } else if (word == "invalid" && !finds.environments.empty()) {
            finds.environments.back().refusal = HasMore(words, rest) ? rest : "no reason given";
        } else if (!finds.partitions.empty()) {
            std::vector<BoardFinds::Volume> &volumes = finds.partitions.back().volumes;
            if (word == "volume" && HasMore(words, rest))
                volumes.push_back({rest, "", {}});
            else if (word == "unmounted" && !volumes.empty())
                volumes.back().refusal = HasMore(words, rest) ? rest : "no reason given";
            else if (word == "file" && !volumes.empty() && HasMore(words, rest)) {
                if (const std::optional<SummedFile> summed = ReadSum(rest))
                    volumes.back().files.push_back({summed->path, summed->sum});
            }
        }
    }
}

std::string FindsText(const BoardFinds &finds) {
    std::string text;
    const auto add = [&text](const std::string &line) { text += VisibleText(line) + "\n"; };
    for (const BoardFinds::Environment &environment : finds.environments) {
        const std::string name = "environment at " + Hex(environment.offset) + ": ";
        if (!environment.refusal.empty())
            add(name + "fw_printenv: " + environment.refusal);
        for (const std::string &variable : environment.variables)
            add(name + variable);
    }
    for (const BoardFinds::Partition &partition : finds.partitions) {
        const std::string device = "mtd" + std::to_string(partition.device) + ": ";
        add(device + (partition.refusal.empty() ? "UBI attaches" : "UBI does not attach: " + partition.refusal));
        for (const BoardFinds::Volume &volume : partition.volumes) {
            const std::string name = device + "volume " + volume.name + ": ";
            if (!volume.refusal.empty())
                add(name + "not mounted as UBIFS: " + volume.refusal);
            else
                add(name + "UBIFS with " + Count(static_cast<std::int64_t>(volume.files.size()), "file"));
            for (const BoardFinds::File &file : volume.files)
                add(name + file.sum + "  " + file.path);
        }
    }
    return text;
}

ordered_json DescribeFinds(const BoardFinds &finds) {
    ordered_json described = {{"bootSeconds", finds.bootSeconds},
                              {"counters", ordered_json::array()},
                              {"environments", ordered_json::array()},
                              {"ubi", ordered_json::array()},
                              {"kernelLog", finds.kernelLog}};
    for (const BoardFinds::Counters &counters : finds.counters)
        described["counters"].push_back({{"device", counters.device},
                                         {"corrected", counters.corrected},
                                         {"failed", counters.failed},
                                         {"badBlocks", counters.badBlocks}});
    for (const BoardFinds::Environment &environment : finds.environments)
        described["environments"].push_back({{"offset", environment.offset},
                                             {"size", environment.size},
                                             {"valid", environment.refusal.empty()},
                                             {"reason", environment.refusal},
                                             {"variables", environment.variables}});
    for (const BoardFinds::Partition &partition : finds.partitions) {
        ordered_json volumes = ordered_json::array();
        for (const BoardFinds::Volume &volume : partition.volumes) {
            ordered_json files = ordered_json::array();
            for (const BoardFinds::File &file : volume.files)
                files.push_back({{"path", file.path}, {"sha256", file.sum}});
            volumes.push_back({{"name", volume.name},
                               {"mounted", volume.refusal.empty()},
                               {"reason", volume.refusal},
                               {"files", files}});
        }
        described["ubi"].push_back({{"device", partition.device},
                                    {"attached", partition.refusal.empty()},
                                    {"reason", partition.refusal},
                                    {"volumes", volumes}});
    }
    return described;
}

std::vector<Finding> JudgeFinds(const BoardFinds &finds, const std::vector<SetRange> &lines,
                                const std::vector<ExpectedFile> &expected) {
    std::vector<Finding> findings;
    for (const BoardFinds::Environment &environment : finds.environments) {
        if (environment.refusal.empty())
            continue;
        const auto setter = std::find_if(lines.rbegin(), lines.rend(), [&](const SetRange &range) {
            return range.offset == environment.offset && range.size == environment.size;
        });
        if (setter != lines.rend())
            findings.push_back(ForLine(setter->line, FindingId::EnvironmentUnreadable,
                                       "fw_printenv on the board can't read the environment: " + environment.refusal));
    }
    for (const ExpectedFile &file : expected) {
        const std::string mismatch = Mismatch(finds, file);
        if (!mismatch.empty())
            findings.push_back(ForRun(FindingId::UnexpectedFile, mismatch));
    }
    return findings;
}
