# ZarnLibrary.cmake - how a library of this tree is declared, built, installed and found.

# Warnings for all code of ours, whatever the compiler.
function(zarn_set_warnings target)
  target_compile_options(
    ${target}
    PRIVATE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Werror)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # Clang counts changes of sign as conversions, GCC does not: both are to judge alike.
    target_compile_options(${target} PRIVATE -Wthread-safety -Wno-sign-conversion)
  elseif(ZARN_BATCHES)
    # GCC takes the files of a batch for headers, whose types others might see differently, and what
    # refers to a local object until that ends for something that outlives it.
    target_compile_options(${target} PRIVATE -Wno-subobject-linkage -Wno-dangling-pointer)
  endif()
endfunction()

# zarn_library(NAME name DESCRIPTION text INCLUDE_DIR dir
#              SOURCE_DIR dir [EXPORT_NAME name] [PUBLIC_DEPS ...] [PUBLIC_PACKAGES ...]
#              [PRIVATE_DEPS ...])
#
# Declares a library with its public headers (*.h below INCLUDE_DIR) and its sources (SOURCE_DIR/*.cpp;
# private headers lie beside them), its installation and its pkg-config file. PUBLIC_DEPS are
# libraries declared in this way; PUBLIC_PACKAGES are pkg-config packages whose types the public
# headers name, each the target PkgConfig::<package>; PRIVATE_DEPS may be any target. Makes
#   NAME          the shared library, also known as zarn::EXPORT_NAME
#   NAME_static   the same objects with every symbol within reach, for unit tests and fuzz targets.
# A program links one kind or the other, never both: each singleton must exist once.
function(zarn_library)
  cmake_parse_arguments(
    arg "" "NAME;DESCRIPTION;INCLUDE_DIR;SOURCE_DIR;EXPORT_NAME"
    "PUBLIC_DEPS;PUBLIC_PACKAGES;PRIVATE_DEPS" ${ARGN})
  if(NOT arg_EXPORT_NAME)
    set(arg_EXPORT_NAME ${arg_NAME})
  endif()
  cmake_path(ABSOLUTE_PATH arg_INCLUDE_DIR OUTPUT_VARIABLE include_dir)
  list(TRANSFORM arg_PUBLIC_PACKAGES PREPEND PkgConfig:: OUTPUT_VARIABLE packages)

  file(GLOB sources CONFIGURE_DEPENDS ${arg_SOURCE_DIR}/*.cpp)
  add_library(${arg_NAME}_objects OBJECT ${sources})
  zarn_add_usage(${arg_NAME}_objects PUBLIC ${include_dir} ${arg_PUBLIC_DEPS} ${packages})
  target_link_libraries(${arg_NAME}_objects PRIVATE ${arg_PRIVATE_DEPS})
  target_include_directories(${arg_NAME}_objects PRIVATE ${arg_SOURCE_DIR})
  zarn_compile_as_library(${arg_NAME}_objects)

  add_library(${arg_NAME} SHARED $<TARGET_OBJECTS:${arg_NAME}_objects>)
  zarn_add_usage(${arg_NAME} PUBLIC ${include_dir} ${arg_PUBLIC_DEPS} ${packages})
  target_link_libraries(${arg_NAME} PRIVATE ${arg_PRIVATE_DEPS})
  set_target_properties(
    ${arg_NAME}
    PROPERTIES LINKER_LANGUAGE CXX
               VERSION ${PROJECT_VERSION}
               SOVERSION ${PROJECT_VERSION_MAJOR}
               INSTALL_RPATH "$ORIGIN")
  target_link_options(${arg_NAME} PRIVATE -Wl,-Bsymbolic-functions)
  # The run-time of a sanitizer is found only when the program starts.
  if(NOT CMAKE_CXX_FLAGS MATCHES "-fsanitize")
    target_link_options(${arg_NAME} PRIVATE -Wl,--no-undefined)
  endif()

  add_library(${arg_NAME}_static STATIC EXCLUDE_FROM_ALL $<TARGET_OBJECTS:${arg_NAME}_objects>)
  list(TRANSFORM arg_PUBLIC_DEPS APPEND _static OUTPUT_VARIABLE static_deps)
  zarn_add_usage(${arg_NAME}_static PUBLIC ${include_dir} ${static_deps} ${packages})
  target_link_libraries(${arg_NAME}_static PRIVATE ${arg_PRIVATE_DEPS})
  set_target_properties(${arg_NAME}_static PROPERTIES LINKER_LANGUAGE CXX)

  add_library(zarn::${arg_EXPORT_NAME} ALIAS ${arg_NAME})
  set_target_properties(${arg_NAME} PROPERTIES EXPORT_NAME ${arg_EXPORT_NAME})
  install(TARGETS ${arg_NAME} EXPORT zarnutilsTargets)
  install(
    DIRECTORY ${include_dir}/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    FILES_MATCHING
    PATTERN "*.h")
  zarn_install_pkgconfig()
  set_property(GLOBAL APPEND PROPERTY zarn_libraries ${arg_NAME})
  set_property(GLOBAL PROPERTY zarn_include_dir_${arg_NAME} ${include_dir})
endfunction()

# Gives `target` its public headers, the language they are written in, and the libraries whose headers
# come with them.
function(zarn_add_usage target scope include_dir)
  target_compile_features(${target} ${scope} cxx_std_17)
  target_include_directories(
    ${target} ${scope} $<BUILD_INTERFACE:${include_dir}>
                       $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${target} ${scope} ${ARGN})
endfunction()

# How the objects of a library are compiled.
function(zarn_compile_as_library target)
  target_compile_definitions(${target} PRIVATE ZARN_VERSION="${PROJECT_VERSION}")
  set_target_properties(
    ${target} PROPERTIES POSITION_INDEPENDENT_CODE ON CXX_VISIBILITY_PRESET hidden
                         VISIBILITY_INLINES_HIDDEN ON
                         UNITY_BUILD ${ZARN_BATCHES} UNITY_BUILD_BATCH_SIZE 16)
  # The record of the ABI (tests/abi) is made of the types, all of them and not only line numbers.
  target_compile_options(
    ${target}
    PRIVATE $<$<AND:$<CONFIG:RelWithDebInfo>,$<CXX_COMPILER_ID:GNU>>:-g2 -femit-class-debug-always>)
  # A message passes some dozens of our own functions: calls go straight to them. Nobody can put
  # another function in place of one of these by defining it in a program.
  target_compile_options(${target} PRIVATE -fno-semantic-interposition -fno-plt)
  target_compile_options(${target} PRIVATE ${ZARN_LIBRARY_OPTIONS})
  zarn_set_warnings(${target})
endfunction()

# Writes NAME.pc, which finds its prefix from where it lies, and installs it.
macro(zarn_install_pkgconfig)
  set(pc_dir ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig)
  file(RELATIVE_PATH pc_prefix ${pc_dir} ${CMAKE_INSTALL_PREFIX})
  string(REGEX REPLACE "/$" "" pc_prefix "\${pcfiledir}/${pc_prefix}")
  file(RELATIVE_PATH pc_libdir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
  file(RELATIVE_PATH pc_includedir ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  string(JOIN " " pc_requires ${arg_PUBLIC_DEPS} ${arg_PUBLIC_PACKAGES})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${arg_NAME}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/${arg_NAME}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endmacro()

# Installs what find_package(zarnutils) reads, once all libraries are declared.
function(zarn_install_package)
  include(CMakePackageConfigHelpers)
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/zarnutils)
  write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/zarnutilsConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/zarnutilsConfig.cmake
                ${PROJECT_BINARY_DIR}/zarnutilsConfigVersion.cmake DESTINATION ${package_dir})
  install(EXPORT zarnutilsTargets NAMESPACE zarn:: DESTINATION ${package_dir})

  # All libraries and nothing else.
  get_property(libraries GLOBAL PROPERTY zarn_libraries)
  add_custom_target(shared_libraries)
  add_dependencies(shared_libraries ${libraries})
endfunction()
