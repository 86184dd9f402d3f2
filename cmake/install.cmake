# Install rules and the Debian package: the agent, cpa-rp and its package, the service unit,
# syslog and logrotate snippets, the default options file and the manuals.
include(GNUInstallDirs)

# Where the configuration snippets go. rsyslog, logrotate and the unit's
# EnvironmentFile only look under /etc, so this stays absolute whatever the
# prefix (DESTDIR still applies).
set(CPA_INSTALL_SYSCONFDIR "/etc" CACHE PATH "Directory of the rsyslog, logrotate and default files")

install(TARGETS ipsec_cpa RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(PROGRAMS tools/cpa-rp DESTINATION ${CMAKE_INSTALL_BINDIR})
# The launcher looks for its package in ../lib/cpa-rp (a private directory:
# nothing else imports it).
install(DIRECTORY tools/cpa_rp DESTINATION lib/cpa-rp FILES_MATCHING PATTERN "*.py" PATTERN __pycache__ EXCLUDE)

# The unit names the agent by its installed path; systemd also reads units
# under /usr/local/lib/systemd/system, so the prefix's own lib/ serves both.
configure_file(packaging/ipsec_cpa.service.in ipsec_cpa.service @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/ipsec_cpa.service DESTINATION lib/systemd/system)

install(FILES packaging/rsyslog.conf DESTINATION ${CPA_INSTALL_SYSCONFDIR}/rsyslog.d
        RENAME ipsec_cpa.conf)
install(FILES packaging/logrotate DESTINATION ${CPA_INSTALL_SYSCONFDIR}/logrotate.d
        RENAME ipsec_cpa)
install(FILES packaging/default DESTINATION ${CPA_INSTALL_SYSCONFDIR}/default RENAME ipsec_cpa)

install(FILES man/ipsec_cpa.8 DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES man/cpa-rp.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)

# The package installs where `cmake --install` does, so the unit's paths hold.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ipsec-cpa)
set(CPACK_PACKAGE_VERSION 0.1.0)
set(CPACK_PACKAGE_CONTACT "ipsec_cpa developers <root@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "IPsec control-plane agent and its RP command line")
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6, libstdc++6, python3")
set(CPACK_DEBIAN_PACKAGE_SUGGESTS "rsyslog, logrotate")
# Local edits of the snippets and the options survive upgrades.
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/conffiles
     "${CPA_INSTALL_SYSCONFDIR}/rsyslog.d/ipsec_cpa.conf\n"
     "${CPA_INSTALL_SYSCONFDIR}/logrotate.d/ipsec_cpa\n"
     "${CPA_INSTALL_SYSCONFDIR}/default/ipsec_cpa\n")
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_BINARY_DIR}/conffiles)
include(CPack)
