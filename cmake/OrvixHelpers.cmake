set(ORVIX_CMAKE_DIR ${CMAKE_CURRENT_LIST_DIR})

# orvix_add_test(tst_name SOURCES a.cpp ... [LIBS lib ...])
# One QtTest program per class, registered with CTest under its own name, linked with the shared test support.
function(orvix_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE orvix_testsupport Qt5::Test Qt5::Core ${ARG_LIBS})
    target_compile_definitions(${name} PRIVATE QT_FORCE_ASSERTS
        ORVIX_TEST_PLUGIN_DIR="${CMAKE_BINARY_DIR}/tests/testplugins"
        ORVIX_PLUGIN_BUILD_DIR="${ORVIX_PLUGIN_BUILD_DIR}"
        ORVIX_BINARY="$<TARGET_FILE:orvix>"
        ORVIX_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    add_test(NAME ${name} COMMAND ${name})
    # A test that needs root for a private mount namespace skips without it; CTest then shows it as skipped, not
    # passed, so a run without root is visibly incomplete.
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "QT_QPA_PLATFORM=offscreen" TIMEOUT 300
        SKIP_REGULAR_EXPRESSION "SKIP   : [^\n]*needs root;SKIP   : [^\n]*needs node-opcua")
endfunction()

# orvix_add_plugin(name CLASS Class IID IDatasource|ITarget SOURCES a.cpp ... [LIBS lib ...])
# A shipped plugin: its code as the static library orvix_<name>, which its tests link, and the thin MODULE lib<name>.so
# that Qt loads. The module's only source is a generated subclass that carries the plugin metadata, <name>.json beside
# the sources, so the tests and the service run the same compiled code.
function(orvix_add_plugin name)
    cmake_parse_arguments(ARG "" "CLASS;IID" "SOURCES;LIBS" ${ARGN})
    add_library(orvix_${name} STATIC ${ARG_SOURCES})
    target_include_directories(orvix_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(orvix_${name} PUBLIC orvix_interfaces Qt5::Core ${ARG_LIBS})

    set(PLUGIN_CLASS ${ARG_CLASS})
    set(PLUGIN_IID ${ARG_IID})
    set(PLUGIN_NAME ${name})
    set(PLUGIN_HEADER ${name}.h)
    set(PLUGIN_METADATA ${CMAKE_CURRENT_SOURCE_DIR}/${name}.json)
    set(entry ${CMAKE_CURRENT_BINARY_DIR}/${name}plugin.cpp)
    configure_file(${ORVIX_CMAKE_DIR}/pluginentry.cpp.in ${entry} @ONLY)
    add_library(${name} MODULE ${entry})
    target_link_libraries(${name} PRIVATE orvix_${name})
    set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${ORVIX_PLUGIN_BUILD_DIR} PREFIX "lib")
    install(TARGETS ${name} LIBRARY DESTINATION ${ORVIX_PLUGIN_INSTALL_DIR})
endfunction()

# orvix_add_test_plugin(name SOURCES a.cpp ... [LIBS lib ...])
# A plugin made for the tests: one MODULE with its metadata in its own source, built into the test plugin folder.
function(orvix_add_test_plugin name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} MODULE ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE orvix_interfaces Qt5::Core ${ARG_LIBS})
    set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests/testplugins PREFIX "lib")
endfunction()

# orvix_add_processor(name SOURCES a.cpp ... [LIBS lib ...])
# A built-in processor: a static library that the service library links.
function(orvix_add_processor name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC orvix_interfaces orvix_logging Qt5::Core ${ARG_LIBS})
endfunction()
