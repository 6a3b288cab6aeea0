# Runs as a CMake script: see CMakeLists.txt beside it.
file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
    if(NOT result EQUAL 0)
        message(FATAL_ERROR "Failed (${result}): ${ARGN}\n${output}")
    endif()
    set(last_output "${output}" PARENT_SCOPE)
endfunction()

set(flags "${CXX_FLAGS}")
if(SANITIZE)
    string(APPEND flags " -fsanitize=${SANITIZE}")
endif()

run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

foreach(header nuvek/Nuvek.h nuvek/core/Box.h nuvek/filters/framework/Buffer.h
               nuvek/filters/pixelwise/ClampingFilter.h)
    if(NOT EXISTS ${prefix}/include/${header})
        message(FATAL_ERROR "Not installed: include/${header}")
    endif()
endforeach()

# 1. CMake package.
run(${CMAKE_COMMAND} -S ${CONSUMER_DIR} -B ${WORK_DIR}/consumer-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} "-DCMAKE_CXX_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer-build)
run(${WORK_DIR}/consumer-build/consumer)
if(NOT last_output MATCHES "consumer ok")
    message(FATAL_ERROR "Unexpected consumer output: ${last_output}")
endif()

# Internal headers stay out of the install tree.
foreach(header nuvek/filters/internal/CacheTrim.h nuvek/filters/framework/CacheTrim.h nuvek/io/internal/TiffHandle.h)
    if(EXISTS ${prefix}/include/${header})
        message(FATAL_ERROR "Installed an internal header: include/${header}")
    endif()
endforeach()

# 1a. The chains library: its own umbrella, kept out of <nuvek/Nuvek.h>.
foreach(header nuvek/NuvekChains.h nuvek/core/ValueRange.h nuvek/filters/framework/ValueRange.h
               nuvek/chains/FilterRegistry.h)
    if(NOT EXISTS ${prefix}/include/${header})
        message(FATAL_ERROR "Not installed: include/${header}")
    endif()
endforeach()
run(${CMAKE_COMMAND} -S ${CHAINS_CONSUMER_DIR} -B ${WORK_DIR}/consumer-chains-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} "-DCMAKE_CXX_FLAGS=${flags}")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer-chains-build)
run(${WORK_DIR}/consumer-chains-build/consumer-chains)
if(NOT last_output MATCHES "consumer ok")
    message(FATAL_ERROR "Unexpected chains consumer output: ${last_output}")
endif()

# 1b. The IO library: its own umbrella, no libtiff header installed, <nuvek/Nuvek.h> free of it.
if(WITH_IO)
    foreach(header nuvek/NuvekIO.h nuvek/io/TiffImage.h nuvek/io/SlideImage.h nuvek/io/PyramidalTiffWriter.h)
        if(NOT EXISTS ${prefix}/include/${header})
            message(FATAL_ERROR "Not installed: include/${header}")
        endif()
    endforeach()
    if(EXISTS ${prefix}/include/nuvek/io/TiffHandle.h)
        message(FATAL_ERROR "Installed an internal header: include/nuvek/io/TiffHandle.h")
    endif()
    file(READ ${prefix}/include/nuvek/Nuvek.h umbrella)
    if(umbrella MATCHES "io/" OR umbrella MATCHES "chains/")
        message(FATAL_ERROR "<nuvek/Nuvek.h> includes libNuvekIO or libNuvekChains headers")
    endif()
    run(${CMAKE_COMMAND} -S ${IO_CONSUMER_DIR} -B ${WORK_DIR}/consumer-io-build
        -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_CXX_COMPILER=${CXX_COMPILER} "-DCMAKE_CXX_FLAGS=${flags}")
    run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer-io-build)
    run(${WORK_DIR}/consumer-io-build/consumer-io ${WORK_DIR}/consumer-io.tif)
    if(NOT last_output MATCHES "consumer ok")
        message(FATAL_ERROR "Unexpected IO consumer output: ${last_output}")
    endif()
    # The tool is installed beside the libraries and finds them from there.
    run(${prefix}/bin/nuvek filters)
    if(NOT last_output MATCHES "gaussian k")
        message(FATAL_ERROR "Unexpected output of the installed nuvek: ${last_output}")
    endif()
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
set(libdir ${CMAKE_MATCH_1})
run(${CXX_COMPILER} -std=c++17 ${extra} ${CONSUMER_DIR}/main.cpp ${pc_flags} -Wl,-rpath,${libdir}
    -o ${WORK_DIR}/consumer-pkgconfig)
run(${WORK_DIR}/consumer-pkgconfig)
if(NOT last_output MATCHES "consumer ok")
    message(FATAL_ERROR "Unexpected pkg-config consumer output: ${last_output}")
endif()
