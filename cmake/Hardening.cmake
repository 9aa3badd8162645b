# How what ships is compiled and linked; the presets that build for a device set KOVA_SHIPPED.
# tests/package/hardening checks the programs for it.
include_guard()

option(KOVA_SHIPPED "Build with link-time optimisation and hardening" OFF)
if(NOT KOVA_SHIPPED)
  return()
endif()

# Objects have machine code beside the intermediate one: for tests, which are linked without it, and
# for whoever links the static libraries with another compiler.
set(CMAKE_INTERPROCEDURAL_OPTIMIZATION ON)
set(CMAKE_CXX_COMPILE_OPTIONS_IPO -flto=auto -ffat-lto-objects)

set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported(LANGUAGES CXX)

add_compile_options(
  -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=3
  -fstack-protector-strong -fstack-clash-protection
  -ffunction-sections -fdata-sections)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "x86_64|amd64")
  add_compile_options(-fcf-protection=full)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "aarch64")
  add_compile_options(-mbranch-protection=standard)
endif()
# A program is no library: nothing of the archives that it is made of can be reached from outside.
add_link_options(-Wl,-z,relro,-z,now -Wl,-z,noexecstack -Wl,--as-needed -Wl,--gc-sections
  -Wl,--exclude-libs,ALL)
