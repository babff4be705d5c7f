# Warnings that pay, as a target to link against: zorvan_warnings.
add_library(zorvan_warnings INTERFACE)
target_compile_options(zorvan_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wno-sign-conversion
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<BOOL:${ZORVAN_WERROR}>:-Werror>)
