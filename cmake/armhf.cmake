# Cross build for 32-bit ARM Linux, hard float, with Debian's cross compiler. The libraries to link come from the folder
# that tests/vm/sysroot makes; a unit's own maker puts another folder in its place with QUILLET_SYSROOT. What the build
# and the tests start of what was built runs under qemu's user-mode emulation.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(DEFINED ENV{QUILLET_SYSROOT})
	set(CMAKE_SYSROOT $ENV{QUILLET_SYSROOT})
elseif(DEFINED ENV{QUILLET_VM_CACHE})
	set(CMAKE_SYSROOT $ENV{QUILLET_VM_CACHE}/armhf/sysroot)
else()
	get_filename_component(CMAKE_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build-vm/armhf/sysroot ABSOLUTE)
endif()
if(NOT EXISTS ${CMAKE_SYSROOT}/usr/include)
	message(FATAL_ERROR "there is no sysroot in ${CMAKE_SYSROOT}; run tests/vm/sysroot, which makes it")
endif()

foreach(program arm-linux-gnueabihf-gcc arm-linux-gnueabihf-g++ qemu-arm-static)
	find_program(found_${program} ${program} NO_CACHE)
	if(NOT found_${program})
		message(FATAL_ERROR "${program} is missing; run packaging/install-deps.sh --vm")
	endif()
endforeach()
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static -L ${CMAKE_SYSROOT})

set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CMAKE_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR}
	${CMAKE_SYSROOT}/usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/pkgconfig:${CMAKE_SYSROOT}/usr/share/pkgconfig)
