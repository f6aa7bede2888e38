# GNUstep::Base: Foundation for Objective-C, with the flags that gnustep-config gives for it. Those that are the
# build type's business (-g, -O2), dependency files and include directories of a user's own are left out.

find_program(GNUSTEP_CONFIG gnustep-config)
if(NOT GNUSTEP_CONFIG)
    message(FATAL_ERROR "gnustep-config is missing; install the packages that scripts/packages.txt names.")
endif()
execute_process(COMMAND ${GNUSTEP_CONFIG} --objc-flags OUTPUT_VARIABLE GNUSTEP_FLAGS OUTPUT_STRIP_TRAILING_WHITESPACE
                COMMAND_ERROR_IS_FATAL ANY)
if(NOT GNUSTEP_FLAGS)
    message(FATAL_ERROR "gnustep-config gives no flags: it needs make; install what scripts/packages.txt names.")
endif()
separate_arguments(GNUSTEP_FLAGS UNIX_COMMAND "${GNUSTEP_FLAGS}")
list(FILTER GNUSTEP_FLAGS EXCLUDE REGEX "^(-MMD|-MP|-g|-O.*|-Wall|-I.*)$")
# gcc takes the parameter of every synthesized setter for unused.
list(APPEND GNUSTEP_FLAGS -Wno-unused-parameter)
# Its default for Objective-C is the C of 1989, which CMake does not know.
list(APPEND GNUSTEP_FLAGS -std=gnu11)

add_library(GNUstep::Base INTERFACE IMPORTED)
target_compile_options(GNUstep::Base INTERFACE "$<$<COMPILE_LANGUAGE:OBJC>:${GNUSTEP_FLAGS}>")
target_include_directories(GNUstep::Base SYSTEM INTERFACE "$<$<COMPILE_LANGUAGE:OBJC>:/usr/include/GNUstep>")
target_link_libraries(GNUstep::Base INTERFACE gnustep-base objc)
