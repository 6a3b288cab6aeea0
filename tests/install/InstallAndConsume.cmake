# Runs as a CMake script: see CMakeLists.txt beside it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

# Runs a command and fails unless it exits with 0 (and, with EXPECT, prints that text).
function(run)
    cmake_parse_arguments(PARSE_ARGV 0 arg "" "EXPECT" "")
    execute_process(COMMAND ${arg_UNPARSED_ARGUMENTS} RESULT_VARIABLE result OUTPUT_VARIABLE output
        ERROR_VARIABLE output)
    if(NOT result EQUAL 0 OR (arg_EXPECT AND NOT output MATCHES "${arg_EXPECT}"))
        message(FATAL_ERROR "Failed (${result}): ${arg_UNPARSED_ARGUMENTS}\n${output}")
    endif()
    set(last_output "${output}" PARENT_SCOPE)
endfunction()

set(flags "${CXX_FLAGS}")
if(SANITIZE)
    string(APPEND flags " -fsanitize=${SANITIZE}")
endif()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The public headers, each library's umbrella among them, are installed; internal ones are not, and
# <nuvek/Nuvek.h> includes neither libNuvekIO's nor libNuvekChains' headers.
set(installed nuvek/Nuvek.h nuvek/core/Box.h nuvek/core/ValueRange.h nuvek/filters/framework/Buffer.h
    nuvek/filters/framework/ValueRange.h nuvek/filters/pixelwise/ClampingFilter.h nuvek/NuvekChains.h
    nuvek/chains/FilterRegistry.h)
if(WITH_IO)
    list(APPEND installed nuvek/NuvekIO.h nuvek/io/TiffImage.h nuvek/io/SlideImage.h nuvek/io/PyramidalTiffWriter.h)
endif()
foreach(header ${installed})
    if(NOT EXISTS ${prefix}/include/${header})
        message(FATAL_ERROR "Not installed: include/${header}")
    endif()
endforeach()
foreach(header nuvek/filters/internal/CacheTrim.h nuvek/filters/framework/CacheTrim.h nuvek/io/internal/TiffHandle.h
               nuvek/io/TiffHandle.h)
    if(EXISTS ${prefix}/include/${header})
        message(FATAL_ERROR "Installed an internal header: include/${header}")
    endif()
endforeach()
file(READ ${prefix}/include/nuvek/Nuvek.h umbrella)
if(umbrella MATCHES "io/" OR umbrella MATCHES "chains/")
    message(FATAL_ERROR "<nuvek/Nuvek.h> includes libNuvekIO or libNuvekChains headers")
endif()

# 1. The CMake package: one program per library.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} "-DCMAKE_CXX_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer-build)
run(${WORK_DIR}/consumer-build/consumer EXPECT "consumer ok")
run(${WORK_DIR}/consumer-build/consumer-chains EXPECT "consumer ok")
if(WITH_IO)
    run(${WORK_DIR}/consumer-build/consumer-io ${WORK_DIR}/consumer-io.tif EXPECT "consumer ok")
    # The tool is installed beside the libraries and finds them from there.
    run(${prefix}/bin/nuvek filters EXPECT "gaussian k")
endif()

# 2. pkg-config.
find_program(PKG_CONFIG pkg-config REQUIRED)
file(GLOB_RECURSE pc_files ${prefix}/*/nuvek-filters.pc)
list(GET pc_files 0 pc_file)
get_filename_component(pc_dir ${pc_file} DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
run(${PKG_CONFIG} --cflags --libs nuvek-filters)
string(STRIP "${last_output}" pc_flags)
separate_arguments(pc_flags UNIX_COMMAND "${pc_flags}")
separate_arguments(extra UNIX_COMMAND "${flags}")
string(REGEX MATCH "-L([^ \n]+)" unused "${last_output}")
run(${CXX_COMPILER} -std=c++17 ${extra} ${CONSUMER_DIR}/main.cpp ${pc_flags} -Wl,-rpath,${CMAKE_MATCH_1}
    -o ${WORK_DIR}/consumer-pkgconfig)
run(${WORK_DIR}/consumer-pkgconfig EXPECT "consumer ok")
