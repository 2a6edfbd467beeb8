# convert_fuzz embeds the interpreter and carries the Python modules inside
# it, compiled with the same coverage and sanitizers as the library: the
# module TQDBv17_1 needs TQvindelv17_1 (its Vindel class) and TQdefsv17_1 at
# import, so all three are registered as built-in modules.
#
# The interpreter is the system's python3.11 (Debian: libpython3.11-dev);
# another one can be named with -DTQ_FUZZ_PYTHON_ROOT=<prefix>.
set(TQ_FUZZ_PYTHON_ROOT /usr CACHE PATH "Prefix of the Python 3 the convert fuzz target embeds")
set(Python3_ROOT_DIR ${TQ_FUZZ_PYTHON_ROOT})
set(Python3_FIND_STRATEGY LOCATION)
set(Python3_FIND_VIRTUALENV STANDARD)
find_package(Python3 3.8 REQUIRED COMPONENTS Development.Embed)
message(STATUS "convert_fuzz embeds Python ${Python3_VERSION}: ${Python3_LIBRARIES}")

file(GLOB _tq_binding_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/binding/*.cc)
target_sources(${name} PRIVATE ${_tq_binding_sources})
target_include_directories(${name} SYSTEM PRIVATE ${Python3_INCLUDE_DIRS})
target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/binding)
target_link_libraries(${name} PRIVATE Python3::Python)
# clang 14 refuses a consteval call whose argument is a parameter of the
# consteval function making it (the binding's argument rows: item_arg calls
# arg, Account's members call arg with its template parameter); later
# versions and gcc take them. Every such call is made where a constant is
# required anyway (template arguments, constexpr tables), so compiled as
# constexpr they give the same program.
if(CMAKE_CXX_COMPILER_VERSION VERSION_LESS 15)
  set_source_files_properties(${_tq_binding_sources} PROPERTIES COMPILE_DEFINITIONS
                              "consteval=constexpr")
endif()
