# Finds the interpreter that the extensions are for, its headers and NumPy's.
#
# Order of choice: -DPython_EXECUTABLE=..., the checkout's own .venv, the active virtual
# environment, the first python3 on PATH.

set(_venv_python ${PROJECT_SOURCE_DIR}/.venv/bin/python)
if(NOT SKBUILD AND NOT DEFINED Python_EXECUTABLE AND EXISTS ${_venv_python})
    set(Python_EXECUTABLE ${_venv_python})
endif()

set(Python_FIND_VIRTUALENV FIRST)
set(Python_FIND_STRATEGY LOCATION)
set(Python_FIND_UNVERSIONED_NAMES FIRST)
find_package(Python 3.11 REQUIRED COMPONENTS Interpreter Development.Module NumPy)

if(Python_NumPy_VERSION VERSION_LESS 1.24)
    message(FATAL_ERROR "NumPy 1.24 or newer is needed, ${Python_EXECUTABLE} has ${Python_NumPy_VERSION}")
endif()
message(STATUS "Building for Python ${Python_VERSION}, NumPy ${Python_NumPy_VERSION}")
