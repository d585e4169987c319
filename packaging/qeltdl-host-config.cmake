# find_package(qeltdl-host) gives the target qeltdl::host: the host's side of the gate as a static library.
include(CMakeFindDependencyMacro)
find_dependency(PkgConfig)
pkg_check_modules(FUSE3 REQUIRED IMPORTED_TARGET fuse3)
find_dependency(PNG)
find_dependency(Threads)
find_dependency(nlohmann_json)
include(${CMAKE_CURRENT_LIST_DIR}/qeltdl-host-targets.cmake)
