# The stock-Linux stand-in of the platform's address script, at the absolute
# path where the agent runs it. Off by default, so that an install on the
# platform never replaces the platform's own script.
option(CPA_INSTALL_PLATFORM_STANDINS "Install the stock-Linux stand-in of the platform's address script" OFF)
if(CPA_INSTALL_PLATFORM_STANDINS)
  install(PROGRAMS ${CMAKE_CURRENT_LIST_DIR}/../scripts/platform/setip_arp.sh
          DESTINATION /usr/local/fastpath/etc/scripts)
endif()
