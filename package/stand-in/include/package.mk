# One package: prepared and built below WORK, laid out below ROOT.
PKG_BUILD_DIR:=$(WORK)/source
PKG_INSTALL_DIR:=$(WORK)/installed

# The menu goes to a file, for whoever wants to read it.
define BuildPackage
.PHONY: stage
stage:
	rm -rf $(WORK) $(ROOT)
	$$(call Build/Prepare)
	$$(call Build/Configure)
	$$(call Build/Compile)
	$$(call Package/$(1)/install,$(ROOT))
.PHONY: facts
facts:
	@echo $$(PKG_NAME) $$(PKG_VERSION)
	@echo $$(strip $$(Package/$(1)/conffiles))
endef
