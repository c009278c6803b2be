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

# With prepared the second library is built, and with sync, which needs that, the third; each has packages
# of its own. For sync SQLite has to have its session extension: an append of sqlite3's recipe adds
# -DSQLITE_ENABLE_SESSION -DSQLITE_ENABLE_PREUPDATE_HOOK to CFLAGS.
#
# With device-platform the device's own libtrace and libframework are linked. Their recipes go into
# DEPENDS, by an append of the device's layer; the packages of the stand-ins then stay empty.
PACKAGECONFIG ??= "prepared"
PACKAGECONFIG[prepared] = "-DSQLWRAPPER_PREPARED=ON,-DSQLWRAPPER_PREPARED=OFF"
PACKAGECONFIG[sync] = "-DSQLWRAPPER_SYNC=ON,-DSQLWRAPPER_SYNC=OFF"
PACKAGECONFIG[device-platform] = "-DSQLWRAPPER_DEVICE_PLATFORM=ON,-DSQLWRAPPER_DEVICE_PLATFORM=OFF"

# Ahead of the other packages, these get their files before the development package takes all that is
# of its kind. The stand-ins' libraries have no version in their names, as the device's have none.
PACKAGES =+ "${PN}-trace ${PN}-framework sqlprepared-dev sqlprepared sqlsync-dev sqlsync"
FILES:${PN}-trace = "${libdir}/libtrace.so"
FILES:${PN}-framework = "${libdir}/libframework.so"
FILES:sqlprepared = "${libdir}/libsqlprepared.so.*"
FILES:sqlprepared-dev = "\
    ${includedir}/sqlwrapper/SqlBackup.h \
    ${includedir}/sqlwrapper/SqlBinder.h \
    ${includedir}/sqlwrapper/SqlBlob.h \
    ${includedir}/sqlwrapper/SqlGroupCommit.h \
    ${includedir}/sqlwrapper/SqlFunction.h \
    ${includedir}/sqlwrapper/SqlLiteral.h \
    ${includedir}/sqlwrapper/SqlMapping.h \
    ${includedir}/sqlwrapper/SqlMigration.h \
    ${includedir}/sqlwrapper/SqlPreparedTable.h \
    ${includedir}/sqlwrapper/SqlResult.h \
    ${includedir}/sqlwrapper/SqlSettings.h \
    ${includedir}/sqlwrapper/SqlStatement.h \
    ${includedir}/sqlwrapper/SqlStopFlag.h \
    ${includedir}/sqlwrapper/SqlTableStatements.h \
    ${includedir}/sqlwrapper/SqlTransaction.h \
    ${includedir}/sqlwrapper/SqlTypedTable.h \
    ${libdir}/cmake/sqlwrapper/sqlpreparedTargets* \
    ${libdir}/libsqlprepared.so \
    ${libdir}/pkgconfig/sqlprepared.pc \
    ${datadir}/gdb/auto-load/usr/*/libsqlprepared.so.* \
"
RDEPENDS:sqlprepared-dev = "sqlprepared (= ${EXTENDPKGV}) ${PN}-dev (= ${EXTENDPKGV})"
FILES:sqlsync = "${libdir}/libsqlsync.so.*"
FILES:sqlsync-dev = "\
    ${includedir}/sqlwrapper/SqlChangeReader.h \
    ${includedir}/sqlwrapper/SqlEnvelope.h \
    ${includedir}/sqlwrapper/SqlInbox.h \
    ${includedir}/sqlwrapper/SqlOutbox.h \
    ${includedir}/sqlwrapper/SqlRecorder.h \
    ${libdir}/cmake/sqlwrapper/sqlsyncTargets* \
    ${libdir}/libsqlsync.so \
    ${libdir}/pkgconfig/sqlsync.pc \
    ${datadir}/gdb/auto-load/usr/*/libsqlsync.so.* \
"
RDEPENDS:sqlsync-dev = "sqlsync (= ${EXTENDPKGV}) sqlprepared-dev (= ${EXTENDPKGV})"

# What gdb shows the libraries' objects by.
FILES:${PN}-dev += "${datadir}/gdb/*"
