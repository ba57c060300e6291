#include "main.h"

#include "ProcessUtil.h"
#include "UFile.h"
#include "ULog.h"
#include "UpdateScript.h"

#include <cstdio>
#include <string>
#include <unistd.h>

namespace {

constexpr const char *kUpdateFolder = "/tmp/update";
constexpr const char *kScriptName = "flashrig.script";
constexpr const char *kFallbackFolder = "/";
constexpr const char *kNotifyScript = "/tmp/update/progress_script.sh";

/// Runs the copy of this program in the update.
/// @return the exit value of this process.
int HandOver(const std::string &folder, const char *notifyScript) {
    std::string command = folder + "/" + __progname + " " + folder;
    if (notifyScript != nullptr)
        command += std::string(" ") + notifyScript;
    if (!CommandFits(command))
        return -1;
    printf("new program detected, running %s\n", command.c_str());
    RunCommand(command);
    return 0;
}

std::string PrepareCommand(const char *image) { return std::string("/app/prepare_flashrig.sh ") + image; }

} // namespace

void PrintUsage() {
    printf("usage : flashrig <ZMRT image file> [progress notify script]\n");
    printf("usage : flashrig <folder contain flashrig.script> [progress notify script]\n");
}

int PrepareUpdate(const char *image) {
    RunCommand(PrepareCommand(image));
    return 0;
}

int CheckNewUpdateProgram(const char *folder) { return UFile::Exist((std::string(folder) + "/" + __progname).c_str()); }

int main(int argc, char *argv[]) {
    if (argc < 2) {
        PrintUsage();
        return 0;
    }
    const char *source = argv[1];
    if (!UFile::Exist(source)) {
        fprintf(stderr, "fail to open %s\n", source);
        return -1;
    }

    std::string folder = kUpdateFolder;
    if (UFile::IsDir(source)) {
        folder = source;
    } else {
        if (!CommandFits(PrepareCommand(source)))
            return -1;
        PrepareUpdate(source);
        if (CheckNewUpdateProgram(folder.c_str()))
            return HandOver(folder, argc > 2 ? argv[2] : nullptr);
    }

    std::string script = folder + "/" + kScriptName;
    if (!UFile::Exist(script.c_str())) {
        printf("update script:%s not found!\n", script.c_str());
        script = std::string(kFallbackFolder) + kScriptName;
        if (!UFile::Exist(script.c_str())) {
            printf("update script:%s not found, exit\n", script.c_str());
            return -1;
        }
    }
    printf("running update script %s\n", script.c_str());

    [[maybe_unused]] const int rooted = chroot("/");
    if (setuid(0) < 0)
        fprintf(stderr, "The switch to root user failed!");

    UpdateScript update(script.c_str(), argc == 2 ? kNotifyScript : nullptr, false);
    return update.Run();
}
