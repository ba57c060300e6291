SUMMARY = "Rehearsal of flashrig updates on a simulated NAND chip"
require flashrig.inc

inherit native

DEPENDS = "cli11-native nlohmann-json-native libseccomp-native"

# The updater of this machine stays out of the path: on a workstation it would do harm.
do_install() {
    DESTDIR='${D}' cmake --install '${B}' --component flashsim
}
