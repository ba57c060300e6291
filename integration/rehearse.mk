# A rule for make: `include rehearse.mk` and let a target need UPDATE.rehearsed, where UPDATE is an update image. The
# file is made when the rehearsal of the image is clean; else make fails and shows the findings.
#   FLASHSIM          the simulator [flashsim]
#   FLASHSIM_OPTIONS  such as --device device.toml --root device --sweep bad
#   REHEARSED         what else a rehearsal depends on, such as the files of the device
# Beside the image, UPDATE.json holds the report, for flashsim diff.
FLASHSIM ?= flashsim
FLASHSIM_OPTIONS ?= --used
REHEARSED ?=

%.rehearsed: % $(REHEARSED)
	rm -f $@
	$(FLASHSIM) $(FLASHSIM_OPTIONS) --report $*.json $*
	touch $@
