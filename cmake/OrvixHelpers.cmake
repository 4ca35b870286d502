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

# orvix_logging_categories(target HEADER name.h CATEGORIES identifier "name" [identifier "name" ...])
# Every logging category of orvix is declared here, in the CMakeLists.txt of the component that logs through it: the
# header the sources include and its definitions are generated into the build folder and added to target.
function(orvix_logging_categories target)
    cmake_parse_arguments(ARG "" "HEADER" "CATEGORIES" ${ARGN})
    list(LENGTH ARG_CATEGORIES count)
    math(EXPR odd "${count} % 2")
    if(NOT ARG_HEADER OR count EQUAL 0 OR odd)
        message(FATAL_ERROR "orvix_logging_categories(${target}): HEADER and pairs of identifier and name expected")
    endif()
    set(DECLARATIONS "")
    set(DEFINITIONS "")
    math(EXPR last "${count} - 1")
    foreach(index RANGE 0 ${last} 2)
        math(EXPR next "${index} + 1")
        list(GET ARG_CATEGORIES ${index} identifier)
        list(GET ARG_CATEGORIES ${next} category)
        string(APPEND DECLARATIONS "Q_DECLARE_LOGGING_CATEGORY(${identifier})\n")
        string(APPEND DEFINITIONS "Q_LOGGING_CATEGORY(${identifier}, \"${category}\")\n")
    endforeach()
    set(HEADER ${ARG_HEADER})
    string(MAKE_C_IDENTIFIER "ORVIX_${ARG_HEADER}" GUARD)
    string(TOUPPER ${GUARD} GUARD)
    get_filename_component(base ${ARG_HEADER} NAME_WE)
    set(directory ${CMAKE_CURRENT_BINARY_DIR}/logging)
    configure_file(${ORVIX_CMAKE_DIR}/loggingcategories.h.in ${directory}/${ARG_HEADER} @ONLY)
    configure_file(${ORVIX_CMAKE_DIR}/loggingcategories.cpp.in ${directory}/${base}.cpp @ONLY)
    target_sources(${target} PRIVATE ${directory}/${ARG_HEADER} ${directory}/${base}.cpp)
    target_include_directories(${target} PUBLIC ${directory})
endfunction()

# orvix_add_processor(name SOURCES a.cpp ... [LIBS lib ...])
# A built-in processor: a static library that the service library links.
function(orvix_add_processor name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC orvix_interfaces orvix_logging Qt5::Core ${ARG_LIBS})
endfunction()
