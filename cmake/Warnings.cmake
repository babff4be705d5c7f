# Warnings that pay, as a target to link against: zorvan_warnings.
add_library(zorvan_warnings INTERFACE)
target_compile_options(zorvan_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<BOOL:${ZORVAN_WERROR}>:-Werror>)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
  # False positives of g++ 12 when it optimises: string concatenation (GCC bug 105651) and the frames of
  # coroutines, whose operator new and delete it does not take for a pair.
  target_compile_options(zorvan_warnings INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-restrict>
    $<$<COMPILE_LANGUAGE:CXX>:-Wno-mismatched-new-delete>)
endif()
