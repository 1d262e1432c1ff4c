# Compiler and linker settings that hold for every target of the project.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
find_program(MOLD mold)
if(MOLD)
  add_link_options(-fuse-ld=mold)
endif()

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow
                    "$<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor;-Woverloaded-virtual>")
# GCC 12 sees these in correct uses of std::string and of Boost once they are inlined.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-array-bounds -Wno-stringop-overflow -Wno-stringop-overread -Wno-restrict -Wno-maybe-uninitialized)
endif()
option(CONNECTOR_WERROR "Treat warnings as errors" ON)
if(CONNECTOR_WERROR)
  add_compile_options(-Werror)
endif()

# Unique symbols would keep the module mapped after dlclose.
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fno-gnu-unique>)
endif()

set(CONNECTOR_SANITIZE "" CACHE STRING "Sanitizers, as -fsanitize takes them: address,undefined or thread")
if(CONNECTOR_SANITIZE)
  add_compile_options(-fsanitize=${CONNECTOR_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${CONNECTOR_SANITIZE})
endif()

include_directories(${CMAKE_SOURCE_DIR}/src)

# The fences of Asio are not understood by the thread sanitizer; GCC would warn of each.
if(CONNECTOR_SANITIZE MATCHES "thread" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-tsan)
endif()

# A library says itself what it needs; sanitizers leave symbols for the program to bring.
if(NOT CONNECTOR_SANITIZE)
  add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:-z,defs>
                   $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,MODULE_LIBRARY>:LINKER:-z,defs>)
endif()
