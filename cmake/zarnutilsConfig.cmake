# zarnutilsConfig.cmake - zarn::utils and the platform libraries below it: zarn::keelbase,
# zarn::fipc, zarn::fshmipc, zarn::wface, zarn::sslutils, zarn::shttp, zarn::ptcp, zarn::sslptcp.
# All come at once; a component is one of these names and asks only whether it is there.
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

foreach(zarnutils_component IN LISTS zarnutils_FIND_COMPONENTS)
  if(TARGET zarn::${zarnutils_component})
    set(zarnutils_${zarnutils_component}_FOUND TRUE)
  elseif(zarnutils_FIND_REQUIRED_${zarnutils_component})
    set(zarnutils_FOUND FALSE)
    set(zarnutils_NOT_FOUND_MESSAGE "zarnutils has no component ${zarnutils_component}")
  endif()
endforeach()
