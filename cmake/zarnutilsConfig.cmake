# zarnutilsConfig.cmake - zarn::utils and the platform libraries below it: zarn::keelbase,
# zarn::fipc, zarn::fshmipc, zarn::wface, zarn::sslutils, zarn::shttp, zarn::ptcp, zarn::sslptcp.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)

# What the headers of zarn::utils include.
foreach(zarnutils_package jsoncpp)
  if(NOT TARGET PkgConfig::${zarnutils_package})
    pkg_check_modules(${zarnutils_package} QUIET IMPORTED_TARGET ${zarnutils_package})
  endif()
  if(NOT TARGET PkgConfig::${zarnutils_package})
    set(zarnutils_FOUND FALSE)
    set(zarnutils_NOT_FOUND_MESSAGE "zarnutils needs the development files of ${zarnutils_package}")
    return()
  endif()
endforeach()

include("${CMAKE_CURRENT_LIST_DIR}/zarnutilsTargets.cmake")
