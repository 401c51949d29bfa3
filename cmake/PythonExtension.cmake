# Extension modules: how every one of them is compiled, linked and placed.

find_package(Python 3.13 REQUIRED COMPONENTS Interpreter Development.Module)
if(NOT Python_VERSION VERSION_LESS 3.14)
  message(FATAL_ERROR "The extension is written for CPython 3.13; ${Python_EXECUTABLE} is "
                      "${Python_VERSION}. Name another one with -DPython_EXECUTABLE=...")
endif()
execute_process(
  COMMAND "${Python_EXECUTABLE}" -c
          "import sysconfig; print(sysconfig.get_config_var('Py_GIL_DISABLED') or 0)"
  OUTPUT_VARIABLE free_threaded OUTPUT_STRIP_TRAILING_WHITESPACE)
if(free_threaded)
  message(FATAL_ERROR "The extension needs the interpreter lock, which ${Python_EXECUTABLE}, a "
                      "free-threaded CPython, is built without.")
endif()

# The importable tree: the package with the extension modules beside the Python modules.
set(TESSALY_PYTHON_TREE "${CMAKE_BINARY_DIR}/python")
set(TESSALY_EXTENSION_DIR "${TESSALY_PYTHON_TREE}/tessaly/storage")

add_library(extension_flags INTERFACE)
target_compile_options(extension_flags INTERFACE
  -Wall -Wextra -Wconversion -Wshadow
  # A user who installs from source may have a compiler that warns of more.
  $<$<NOT:$<BOOL:${SKBUILD}>>:-Werror>
  -Wno-missing-field-initializers
  # Rounding is exact arithmetic here: no multiplication may be fused that was not asked for.
  -ffp-contract=off
  -fno-math-errno
  # The interpreter's functions are called straight, not through stubs.
  -fno-plt
  # Most functions are a few lines over one call of the interpreter; worth 1 to 5 % of a method.
  $<$<CXX_COMPILER_ID:GNU>:-finline-limit=1200>
  # Tracebacks name sources as they stand in the project, wherever it was built.
  "-ffile-prefix-map=${CMAKE_SOURCE_DIR}/=")
if(TESSALY_SANITIZE)
  target_compile_options(extension_flags INTERFACE
    -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer -g)
  target_link_options(extension_flags INTERFACE -fsanitize=address,undefined)
endif()

# add_python_extension(name source...): the module tessaly.storage.<name>, which exports its
# initialisation and nothing else. CPython's headers are not ours to hold to our warnings.
function(add_python_extension name)
  Python_add_library(${name} MODULE WITH_SOABI ${ARGN})
  target_link_libraries(${name} PRIVATE extension_flags python_layer)
  set_target_properties(${name} PROPERTIES
    LIBRARY_OUTPUT_DIRECTORY "${TESSALY_EXTENSION_DIR}"
    INTERPROCEDURAL_OPTIMIZATION "$<NOT:$<BOOL:${TESSALY_SANITIZE}>>")
  if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    # What the standard library's headers instantiate would be visible from outside otherwise.
    set(exports "${CMAKE_CURRENT_BINARY_DIR}/${name}.map")
    file(CONFIGURE OUTPUT "${exports}" CONTENT "{ global: PyInit_${name}; local: *; };\n")
    target_link_options(${name} PRIVATE
      "-Wl,--version-script=${exports}"
      -Wl,--wrap=__gxx_personality_v0)  # see python/py/forced_unwind.cpp
  endif()
endfunction()
