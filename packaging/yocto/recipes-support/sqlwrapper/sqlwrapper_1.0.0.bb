# Written to the Yocto Project's manual, but not built with BitBake yet: tests/package/recipes_check.py
# reads this file by itself and compares it with what is installed.

SUMMARY = "Small object layer over SQLite"
DESCRIPTION = "Programs declare a table's columns once and then work with databases, tables, \
records and values instead of writing SQL."
SECTION = "libs"
LICENSE = "Proprietary"
LIC_FILES_CHKSUM = "file://packaging/debian/copyright;md5=c1d4f049c70f6d08c93dee5fee8931d3"

DEPENDS = "sqlite3"

inherit cmake externalsrc

# No release is published: the recipe builds the tree that it lies in.
EXTERNALSRC = "${@os.path.realpath('${THISDIR}/../../../..')}"
EXTERNALSRC_SYMLINKS = ""

EXTRA_OECMAKE = "-DSQLWRAPPER_BUILD_EXAMPLES=OFF -DSQLWRAPPER_BUILD_TESTS=OFF"

# With device-platform the device's own libtrace and libframework are linked. Their recipes go into
# DEPENDS, by an append of the device's layer; the packages of the stand-ins then stay empty.
PACKAGECONFIG ??= ""
PACKAGECONFIG[device-platform] = "-DSQLWRAPPER_DEVICE_PLATFORM=ON,-DSQLWRAPPER_DEVICE_PLATFORM=OFF"

# The stand-ins' libraries have no version in their names, as the device's have none. Ahead of the
# other packages, theirs get these files before the development package takes all of lib*.so.
PACKAGES =+ "${PN}-trace ${PN}-framework"
FILES:${PN}-trace = "${libdir}/libtrace.so"
FILES:${PN}-framework = "${libdir}/libframework.so"

# What gdb shows the library's objects by.
FILES:${PN}-dev += "${datadir}/gdb/*"
