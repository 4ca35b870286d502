# Lets a plugin outside the orvix tree find the installed interface headers: find_package(orvix), then link
# orvix::interfaces, and orvix::codec for the JSON form of datasets. ORVIX_PLUGIN_DIR is the folder the installed service loads its plugins from.
include(CMakeFindDependencyMacro)
find_dependency(Qt5 5.15 COMPONENTS Core)
# orvix::codec reads JSON lines strictly through simdjson.
find_dependency(simdjson)
include("${CMAKE_CURRENT_LIST_DIR}/orvixTargets.cmake")
get_filename_component(ORVIX_PLUGIN_DIR "${CMAKE_CURRENT_LIST_DIR}/../../orvix/plugins" ABSOLUTE)
