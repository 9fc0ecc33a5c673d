# What makes a fault in the program harder to use, in packages, static programs and every build by hand alike. Flags that
# a compiler or a processor does not have are left out.
include(CheckCXXCompilerFlag)

if(NOT VORN_SANITIZE AND NOT VORN_FUZZ)  # the sanitizers see more
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection -mbranch-protection=standard)
    string(MAKE_C_IDENTIFIER has${flag} has)
    check_cxx_compiler_flag(${flag} ${has})
    if(${has})
      add_compile_options(${flag})
    endif()
  endforeach()
  # It works on optimized code alone.
  add_compile_options("$<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
