# What every target is compiled and linked with.

add_library(nrpc_options INTERFACE)
target_compile_options(nrpc_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast
  -Wcast-align -Wformat=2 -Wnull-dereference -Wundef -Wmissing-declarations
  $<$<BOOL:${NRPC_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(nrpc_options INTERFACE -Wthread-safety)
else()
  target_compile_options(nrpc_options INTERFACE -Wduplicated-cond -Wlogical-op)
endif()

# Word size and sanitizers hold for everything, the test framework included.
if(NRPC_32BIT)
  add_compile_options(-m32)
  add_link_options(-m32)
endif()
if(NRPC_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=undefined
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(NRPC_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()
if(NRPC_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(NRPC_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()
