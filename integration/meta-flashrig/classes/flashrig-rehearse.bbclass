# Rehearses the update of an image or of another recipe, and fails the build on findings:
#
#   inherit flashrig-rehearse
#   FLASHRIG_UPDATE = "${IMGDEPLOYDIR}/update.img"
#   FLASHRIG_OPTIONS = "--device ${THISDIR}/files/device.toml --root ${THISDIR}/files/device --sweep bad"
#   FLASHRIG_AFTER = "do_image_complete"
#
# The report is left beside the log of the task, in ${T}/flashrig-rehearse.json, for flashsim diff. The build machine
# must allow user namespaces.

FLASHRIG_UPDATE ?= ""
FLASHRIG_OPTIONS ?= "--used"
# The task that makes the update.
FLASHRIG_AFTER ?= "do_install"

DEPENDS += "flashsim-native"

do_flashrig_rehearse() {
    if [ -z "${FLASHRIG_UPDATE}" ]; then
        bbfatal "no update to rehearse; set FLASHRIG_UPDATE"
    fi
    flashsim ${FLASHRIG_OPTIONS} --report "${T}/flashrig-rehearse.json" "${FLASHRIG_UPDATE}" ||
        bbfatal "the rehearsal of ${FLASHRIG_UPDATE} has findings"
}
do_flashrig_rehearse[depends] += "flashsim-native:do_populate_sysroot"

python () {
    bb.build.addtask('do_flashrig_rehearse', 'do_build', d.getVar('FLASHRIG_AFTER'), d)
}
