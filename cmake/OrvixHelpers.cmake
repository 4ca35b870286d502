# orvix_add_test(tst_name SOURCES a.cpp ... [LIBS lib ...])
# One QtTest program per class, registered with CTest under its own name.
function(orvix_add_test name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_executable(${name} ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE Qt5::Test Qt5::Core ${ARG_LIBS})
    target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests/common)
    target_compile_definitions(${name} PRIVATE QT_FORCE_ASSERTS
        ORVIX_TEST_PLUGIN_DIR="${CMAKE_BINARY_DIR}/tests/testplugins"
        ORVIX_PLUGIN_BUILD_DIR="${ORVIX_PLUGIN_BUILD_DIR}"
        ORVIX_BINARY="$<TARGET_FILE:orvix>"
        ORVIX_SOURCE_DIR="${CMAKE_SOURCE_DIR}")
    add_test(NAME ${name} COMMAND ${name})
    set_tests_properties(${name} PROPERTIES ENVIRONMENT "QT_QPA_PLATFORM=offscreen" TIMEOUT 300)
endfunction()

# orvix_add_plugin(name SOURCES a.cpp ... [LIBS lib ...] [OUTPUT_DIR dir] [NO_INSTALL])
# A plugin is a MODULE library built against the shared interface headers.
function(orvix_add_plugin name)
    cmake_parse_arguments(ARG "NO_INSTALL" "OUTPUT_DIR" "SOURCES;LIBS" ${ARGN})
    add_library(${name} MODULE ${ARG_SOURCES})
    target_link_libraries(${name} PRIVATE orvix_interfaces Qt5::Core ${ARG_LIBS})
    if(NOT ARG_OUTPUT_DIR)
        set(ARG_OUTPUT_DIR ${ORVIX_PLUGIN_BUILD_DIR})
    endif()
    set_target_properties(${name} PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${ARG_OUTPUT_DIR} PREFIX "lib")
    if(NOT ARG_NO_INSTALL)
        install(TARGETS ${name} LIBRARY DESTINATION ${ORVIX_PLUGIN_INSTALL_DIR})
    endif()
endfunction()

# orvix_add_processor(name SOURCES a.cpp ... [LIBS lib ...])
# A built-in processor: a static library that the service library links.
function(orvix_add_processor name)
    cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
    add_library(${name} STATIC ${ARG_SOURCES})
    target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
    target_link_libraries(${name} PUBLIC orvix_interfaces orvix_logging Qt5::Core ${ARG_LIBS})
endfunction()
