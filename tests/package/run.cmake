# Installs the build into a scratch prefix, runs the installed tabletool,
# then builds and runs a client against it twice: through
# find_package(database CONFIG) and through pkg-config.

function(run)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE result)
    if(NOT result EQUAL 0)
        string(REPLACE ";" " " command "${ARGN}")
        message(FATAL_ERROR "failed (${result}): ${command}")
    endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The installed tool finds the installed library by itself (its run path),
# with no LD_LIBRARY_PATH.
unset(ENV{LD_LIBRARY_PATH})
run(${prefix}/bin/tabletool verify ${SOURCE_DIR}/../data/quotes.gz)

run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/cmake-client -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/cmake-client)
run(${WORK_DIR}/cmake-client/client)

file(GLOB_RECURSE pc_file ${prefix}/*/database.pc)
get_filename_component(pc_dir "${pc_file}" DIRECTORY)
get_filename_component(lib_dir "${pc_dir}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})
execute_process(COMMAND pkg-config --cflags --libs database
    OUTPUT_VARIABLE flags RESULT_VARIABLE result OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know the installed package")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run(c++ -std=c++17 ${SOURCE_DIR}/main.cpp -o ${WORK_DIR}/pc-client ${flags})
set(ENV{LD_LIBRARY_PATH} ${lib_dir})
run(${WORK_DIR}/pc-client)
