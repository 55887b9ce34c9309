################################################################################
#
# dockhand
#
################################################################################

DOCKHAND_VERSION = 0.1.0
# This tree is a folder of the sources, so build the sources around it.
DOCKHAND_SITE = $(BR2_EXTERNAL_DOCKHAND_PATH)/../..
DOCKHAND_SITE_METHOD = local
DOCKHAND_OVERRIDE_SRCDIR_RSYNC_EXCLUSIONS = --exclude /build
DOCKHAND_LICENSE = PROPRIETARY
DOCKHAND_REDISTRIBUTE = NO
DOCKHAND_SUPPORTS_IN_SOURCE_BUILD = NO
# The client library, for other packages.
DOCKHAND_INSTALL_STAGING = YES
DOCKHAND_DEPENDENCIES = \
	boost \
	cli11 \
	host-thrift \
	json-for-modern-cpp \
	thrift \
	util-linux

DOCKHAND_GROUP_NAME = $(call qstrip,$(BR2_PACKAGE_DOCKHAND_GROUP))

DOCKHAND_CONF_OPTS = \
	-DDOCKHAND_BUILD_TESTS=OFF \
	-DDOCKHAND_GROUP=$(DOCKHAND_GROUP_NAME) \
	-DTHRIFT_COMPILER=$(HOST_DIR)/bin/thrift

ifeq ($(BR2_PACKAGE_DOCKHAND_STATIC_THRIFT),y)
DOCKHAND_CONF_OPTS += -DDOCKHAND_STATIC_THRIFT=ON
else
DOCKHAND_CONF_OPTS += -DDOCKHAND_STATIC_THRIFT=OFF
endif

# The user "-" means a group without a user.
define DOCKHAND_USERS
	- -1 $(DOCKHAND_GROUP_NAME) -1 - - - - Callers of the storage daemon
endef

# Buildroot itself removes the rest of the client library from the target.
define DOCKHAND_REMOVE_IDL
	$(RM) -r $(TARGET_DIR)/usr/share/dockhand/rpc
endef
DOCKHAND_POST_INSTALL_TARGET_HOOKS += DOCKHAND_REMOVE_IDL

define DOCKHAND_INSTALL_INIT_SYSV
	$(INSTALL) -D -m 0755 $(DOCKHAND_PKGDIR)/S60dockhand \
		$(TARGET_DIR)/etc/init.d/S60dockhand
endef

ifeq ($(BR2_PACKAGE_DOCKHAND_SYSLOG),y)
define DOCKHAND_INSTALL_INIT_SYSTEMD
	$(INSTALL) -D -m 0644 $(DOCKHAND_PKGDIR)/syslog.conf \
		$(TARGET_DIR)/usr/lib/systemd/system/dockhand.service.d/syslog.conf
endef
endif

ifneq ($(BR2_INIT_SYSTEMD),y)
define DOCKHAND_REMOVE_SYSTEMD_FILES
	$(RM) $(TARGET_DIR)/usr/lib/systemd/system/dockhand.service
	$(RM) $(TARGET_DIR)/usr/lib/systemd/system/dockhand-usb@.service
	$(RM) $(TARGET_DIR)/usr/lib/sysusers.d/dockhand.conf
	$(RM) $(TARGET_DIR)/usr/lib/tmpfiles.d/dockhand.conf
endef
DOCKHAND_POST_INSTALL_TARGET_HOOKS += DOCKHAND_REMOVE_SYSTEMD_FILES
endif

$(eval $(cmake-package))
