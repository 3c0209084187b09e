# CHECK_OPTIONS come last: a router has the base libraries, this machine perhaps not.
define Build/Configure
	ln -s $(TELEMETRY_SOURCE_DIR)/hostlibs $(PKG_BUILD_DIR)/hostlibs
	cmake -S $(PKG_BUILD_DIR) -B $(WORK)/build -G Ninja -DCMAKE_BUILD_TYPE=MinSizeRel -DCMAKE_INSTALL_PREFIX=/usr \
		$(CMAKE_OPTIONS) $(CHECK_OPTIONS)
endef

define Build/Compile
	cmake --build $(WORK)/build
	DESTDIR=$(PKG_INSTALL_DIR) cmake --install $(WORK)/build
endef
