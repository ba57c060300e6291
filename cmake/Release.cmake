# Release builds are hardened, and their bytes depend on the sources alone. Debug builds belong to the sanitizers, which
# _FORTIFY_SOURCE would blind.
set(RELEASE_BUILD $<CONFIG:Release,RelWithDebInfo,MinSizeRel>)
add_compile_options(
  "$<${RELEASE_BUILD}:-fstack-protector-strong;-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=2>")
add_link_options("$<${RELEASE_BUILD}:LINKER:-z,relro,-z,now,-z,noexecstack>")

include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)
if(NOT DEFINED CMAKE_POSITION_INDEPENDENT_CODE)
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
endif()

# Log lines name a source file by its path in the project. The second form is for ccache with a base directory.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/= -ffile-prefix-map=../../=)
