################################################################################
#
# flashsim
#
################################################################################

FLASHSIM_VERSION = 1.0.0
# This external tree is a folder of the sources.
FLASHSIM_SITE = $(realpath $(BR2_EXTERNAL_FLASHRIG_PATH)/../..)
FLASHSIM_SITE_METHOD = local
HOST_FLASHSIM_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build

# The updater of this machine stays out of the path: on a workstation it would
# do harm.
define HOST_FLASHSIM_INSTALL_CMDS
	$(BR2_CMAKE) --install $(HOST_FLASHSIM_BUILDDIR) --component flashsim
endef

$(eval $(host-cmake-package))
