# The Wireshark dissector of the agent's ports, for the people reading captures.
include(GNUInstallDirs)
install(FILES ${CMAKE_CURRENT_LIST_DIR}/../tools/ipsec_cpa.lua
        DESTINATION ${CMAKE_INSTALL_DATADIR}/ipsec_cpa)
