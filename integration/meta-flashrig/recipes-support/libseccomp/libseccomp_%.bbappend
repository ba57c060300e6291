# flashsim-native confines what it runs; openembedded-core builds the library for targets only.
BBCLASSEXTEND:append = " native"
REQUIRED_DISTRO_FEATURES:class-native = ""
