#pragma once

/// Fixed paths in a sandbox, as the updater and the devices that it runs on have them.

constexpr const char *kScriptName = "flashrig.script";
constexpr const char *kUnpackedUpdate = "/tmp/update"; ///< where the prepare script unpacks an image
constexpr const char *kPrepareScript = "/app/prepare_flashrig.sh";
constexpr const char *kOwnFolder = "/.flashsim"; ///< what flashsim itself needs in there
