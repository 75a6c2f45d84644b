# zarnutilsConfig.cmake - zarn::utils and the platform libraries below it: zarn::keelbase,
# zarn::fipc, zarn::fshmipc, zarn::wface, zarn::ptcp.
include("${CMAKE_CURRENT_LIST_DIR}/zarnutilsTargets.cmake")
