include $(sort $(wildcard $(BR2_EXTERNAL_DOCKHAND_PATH)/package/*/*.mk))

# Thrift is built as one library, shared or static, and the later word counts.
ifeq ($(BR2_PACKAGE_DOCKHAND_STATIC_THRIFT),y)
THRIFT_CONF_OPTS += \
	-DWITH_SHARED_LIB=OFF \
	-DWITH_STATIC_LIB=ON \
	-DBUILD_SHARED_LIBS=OFF \
	-DCMAKE_POSITION_INDEPENDENT_CODE=ON
endif
