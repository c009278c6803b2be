################################################################################
#
# sqlwrapper
#
################################################################################

# Written to Buildroot's manual, but not built with Buildroot yet: tests/package/recipes_check.py
# reads these files with stubs of what Buildroot brings.

SQLWRAPPER_VERSION = 1.0.0
# No release is published: the package builds the tree that it lies in.
SQLWRAPPER_SITE = $(realpath $(BR2_EXTERNAL_SQLWRAPPER_PATH)/../..)
SQLWRAPPER_SITE_METHOD = local
SQLWRAPPER_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude=/build
SQLWRAPPER_LICENSE = PROPRIETARY
SQLWRAPPER_LICENSE_FILES = packaging/debian/copyright
SQLWRAPPER_REDISTRIBUTE = NO
SQLWRAPPER_INSTALL_STAGING = YES
SQLWRAPPER_DEPENDENCIES = sqlite
SQLWRAPPER_CONF_OPTS = \
	-DSQLWRAPPER_BUILD_EXAMPLES=OFF \
	-DSQLWRAPPER_BUILD_TESTS=OFF

ifeq ($(BR2_PACKAGE_SQLWRAPPER_PREPARED),y)
SQLWRAPPER_CONF_OPTS += -DSQLWRAPPER_PREPARED=ON
else
SQLWRAPPER_CONF_OPTS += -DSQLWRAPPER_PREPARED=OFF
endif

ifeq ($(BR2_PACKAGE_SQLWRAPPER_SYNC),y)
SQLWRAPPER_CONF_OPTS += -DSQLWRAPPER_SYNC=ON
else
SQLWRAPPER_CONF_OPTS += -DSQLWRAPPER_SYNC=OFF
endif

ifeq ($(BR2_PACKAGE_SQLWRAPPER_DEVICE_PLATFORM),y)
SQLWRAPPER_CONF_OPTS += -DSQLWRAPPER_DEVICE_PLATFORM=ON
else
SQLWRAPPER_CONF_OPTS += -DSQLWRAPPER_DEVICE_PLATFORM=OFF
endif

$(eval $(cmake-package))
