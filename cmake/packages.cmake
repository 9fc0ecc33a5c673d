# The Debian packages that cpack makes. scripts/package makes them all, and tarballs besides: cpack's own would belong
# to whoever made them.

set(VORN_MAINTAINER "Vorn maintainers <maintainers@vorn.invalid>" CACHE STRING "Maintainer named in Debian packages")
set(VORN_PACKAGE_ARCHITECTURE amd64 CACHE STRING "Debian's name of the processor that is built for")

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")  # each package has one of its own
set(CPACK_PACKAGE_CONTACT ${VORN_MAINTAINER})
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_COMPONENTS_ALL vorn)
if(NOT CMAKE_CROSSCOMPILING)
  list(APPEND CPACK_COMPONENTS_ALL plot)  # the same for all processors, so it is made once
endif()

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ
    WORLD_EXECUTE)
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian_tree.cmake)
set(VORN_DEBIAN_DIR ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian)
set(CPACK_VORN_DEBIAN_DIR ${VORN_DEBIAN_DIR})
set(CPACK_VORN_STRIP ${CMAKE_STRIP})

set(CPACK_DEBIAN_VORN_PACKAGE_NAME vorn)
set(CPACK_DEBIAN_VORN_PACKAGE_ARCHITECTURE ${VORN_PACKAGE_ARCHITECTURE})
set(CPACK_DEBIAN_VORN_PACKAGE_SECTION net)
# The newest symbol of glibc that the program uses is of 2.34 on every processor; it needs no other library.
set(CPACK_DEBIAN_VORN_PACKAGE_DEPENDS "libc6 (>= 2.34), libcap2-bin")
set(CPACK_DEBIAN_VORN_PACKAGE_SUGGESTS "vorn-plot, ufw | nftables")
set(CPACK_DEBIAN_VORN_PACKAGE_CONTROL_EXTRA ${VORN_DEBIAN_DIR}/postinst ${VORN_DEBIAN_DIR}/prerm
    ${VORN_DEBIAN_DIR}/postrm ${VORN_DEBIAN_DIR}/conffiles)
set(CPACK_COMPONENT_VORN_DESCRIPTION "test tool for IPv4 networks
Vorn sends a paced stream of packets over ICMP, UDP or TCP to a host, to a
range of hosts or hop by hop, and measures what comes back: round-trip
times, losses, late and out-of-order arrivals and receive rates.
.
Two copies work as partners: a monitor sends streams on command, and the
commander measures the rate it receives in batches and keeps results and
histogram tables. A service for a monitor is included, switched off.")

set(CPACK_DEBIAN_PLOT_PACKAGE_NAME vorn-plot)
set(CPACK_DEBIAN_PLOT_PACKAGE_ARCHITECTURE all)
set(CPACK_DEBIAN_PLOT_PACKAGE_SECTION net)
set(CPACK_DEBIAN_PLOT_PACKAGE_DEPENDS 
    "python3 (>= 3.11), python3-numpy, python3-matplotlib, python3-nagiosplugin, python3-prometheus-client")
set(CPACK_DEBIAN_PLOT_PACKAGE_RECOMMENDS "ansible-core, openssh-client")
set(CPACK_DEBIAN_PLOT_PACKAGE_ENHANCES vorn)
set(CPACK_DEBIAN_PLOT_PACKAGE_CONTROL_EXTRA ${VORN_DEBIAN_DIR}/plot/postinst ${VORN_DEBIAN_DIR}/plot/prerm)
set(CPACK_COMPONENT_PLOT_DESCRIPTION "records and pictures of what the network test tool Vorn measured
vorn-record runs vorn and keeps what it measures in an SQLite file, for
months if need be. vorn-plot draws records, results files, histogram files
and saved output of vorn as PNG, SVG or a page for a report: latency, loss
and outages over the clock, guaranteed rate, distributions, trends. The same
figures can be printed as text.
.
vorn-line measures what a line carries each way and how it feels under load.
vorn-check holds one run against limits, for a monitoring system or for
Prometheus. vorn-mesh measures every pair of an Ansible inventory over ssh.")

include(CPack)
