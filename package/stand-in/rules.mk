# What package/Makefile takes from a build tree, for package/check: the commands and modes of the real one.
INCLUDE_DIR:=$(TOPDIR)/include
INSTALL_DIR:=install -d -m0755
INSTALL_BIN:=install -m0755
INSTALL_DATA:=install -m0644
INSTALL_CONF:=install -m0600
CP:=cp -fpR
SED:=sed -i -e
qstrip=$(strip $(subst ",,$(1)))
