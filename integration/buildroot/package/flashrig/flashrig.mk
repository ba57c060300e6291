################################################################################
#
# flashrig
#
################################################################################

FLASHRIG_VERSION = 1.0.0
# This external tree is a folder of the sources.
FLASHRIG_SITE = $(realpath $(BR2_EXTERNAL_FLASHRIG_PATH)/../..)
FLASHRIG_SITE_METHOD = local
FLASHRIG_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
FLASHRIG_CONF_OPTS = \
	-DCMAKE_EXE_LINKER_FLAGS="$(TARGET_LDFLAGS) -static-libstdc++ -static-libgcc -Wl,--gc-sections" \
	-DCMAKE_CXX_FLAGS="$(TARGET_CXXFLAGS) -ffunction-sections -fdata-sections"

$(eval $(cmake-package))
