# -DZORVAN_SANITIZE=address,undefined or =thread applies to every target. A report needs line numbers, not variables: -g1 makes the
# builds a quarter faster.
if(ZORVAN_SANITIZE)
  add_compile_options(-fsanitize=${ZORVAN_SANITIZE} -fno-omit-frame-pointer -g1)
  add_link_options(-fsanitize=${ZORVAN_SANITIZE})
  if(ZORVAN_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # Goes astray in instrumented code (GCC bug 105562: std::regex); the release build keeps it.
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
  if(ZORVAN_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # gcc warns that it does not instrument fences; none of ours rely on them.
    add_compile_options(-Wno-tsan)
  endif()
endif()

# For what is compiled from here on in this folder and below it: the checks for undefined behaviour stay out. The fuzz targets keep them,
# whatever they are made of.
function(zorvan_skip_undefined_checks)
  if(ZORVAN_SANITIZE MATCHES "undefined" AND NOT ZORVAN_FUZZ)
    add_compile_options(-fno-sanitize=undefined)
  endif()
endfunction()

# libFuzzer counts the edges of everything; only the fuzz targets link its main().
if(ZORVAN_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    message(FATAL_ERROR "ZORVAN_FUZZ needs clang: use the preset fuzz")
  endif()
  # libstdc++ 12 uses what it declares deprecated itself; clang tells of it in the code that instantiates it.
  add_compile_options(-fsanitize=fuzzer-no-link -Wno-deprecated-declarations)
endif()
