# What every target of the house is compiled with.
add_library(skorra_options INTERFACE)
target_include_directories(skorra_options INTERFACE ${PROJECT_SOURCE_DIR})
target_compile_options(
  skorra_options
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Werror
            # g++ 12 sees overlapping copies in sums of strings where there are none (GCC bug 105329).
            $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>)
target_link_libraries(skorra_options INTERFACE Threads::Threads)

# A 32-bit time_t ends in 2038.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  target_compile_definitions(skorra_options INTERFACE _TIME_BITS=64 _FILE_OFFSET_BITS=64)
endif()

set(SKORRA_SANITIZE
    ""
    CACHE STRING "Sanitizers, as given to -fsanitize=")
if(SKORRA_SANITIZE)
  target_compile_options(skorra_options INTERFACE -fsanitize=${SKORRA_SANITIZE} -fno-sanitize-recover=all
                                                  -fno-omit-frame-pointer)
  target_link_options(skorra_options INTERFACE -fsanitize=${SKORRA_SANITIZE})
endif()

# skorra_program(NAME WORLD SOURCES...): an executable on one of the two worlds behind the seams (linux or
# sim). The world's objects are linked whole, so every seam has exactly one implementation.
function(skorra_program name world)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE skorra_${world} skorra_ntp)
endfunction()
