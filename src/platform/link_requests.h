// rtnetlink link requests for the tunnels' devices on a stock kernel: an
// xfrm interface of a name and interface id, and the removal of a link by
// name. Whole messages, header first, ready for route_request(); empty
// when a name is too long for the request.
#pragma once

#include <cstdint>
#include <vector>

namespace cpa {

// RTM_NEWLINK of kind "xfrm" with IFLA_XFRM_IF_ID `if_id`; exclusive, so an
// existing device of that name is answered EEXIST.
std::vector<uint8_t> new_xfrm_interface_request(const char* ifname, uint32_t if_id);

// RTM_DELLINK of the device named `ifname`.
std::vector<uint8_t> delete_link_request(const char* ifname);

}  // namespace cpa
