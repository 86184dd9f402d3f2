"""A tunnel's whole life over UDP against the fake platform kernel: open,
attach, peer, ACL, keys for both directions, SPI insert, crypto flow, flow
deletion, and the way back down; every answer byte, the kernel's SA and
policy tables, and the counters."""

import socket

from counter_report import counter_rows
from fake_kernel import FakeKernelTestCase
from rp_messages import (MSG_CEAL, MSG_PAL, ace_record, acl_modify, be32, be64, cflow_insert, cipher_info,
                         create_keys, decrypt_action, delete_flow, encrypt_action, init_completed,
                         intf_attach, key_tlv, notify_actions, peer_insert, response, sadb_delete, spi_insert)

TUNNEL_ID = 7
LOCAL, REMOTE = 0x0A000001, 0x0A000002  # the tunnel's ends, 10.0.0.1 and 10.0.0.2
# (ipsec_index, ipsec_sa, outbound, spi, source, destination, cipher key, mac key)
INBOUND = (0x11, 0x1001, 0, 0x1111, REMOTE, LOCAL, bytes(range(1, 17)), bytes(range(0x40, 0x54)))
OUTBOUND = (0x22, 0x2002, 1, 0x2222, LOCAL, REMOTE, bytes(range(0x11, 0x21)), bytes(range(0x60, 0x74)))


def kernel_sa(sa, svti):
    index, _, _, spi, _, dest, key, mac = sa
    return (f"sa {socket.inet_ntoa(be32(dest))} spi={spi:#x} p50 reqid=1 m1 r64 life=3000/3600 "
            f"svti{svti} 2=cbc(aes):128:{key.hex()} 1=hmac(sha1):160:{mac.hex()}")


class TunnelRoad(FakeKernelTestCase):
    agent_args = ("-d", "7", "-r", "64")

    def send_keys(self, sa):
        index, sa_handle, outbound, spi, source, dest, key, mac = sa
        info = cipher_info(outbound, spi, source, dest)
        answer = self.rp_client.request(
            create_keys(0xC0DE0000 + index, index, sa_handle, info, key_tlv(1, key) + key_tlv(2, mac)))
        self.assertEqual(answer, response(MSG_CEAL, 0, be32(0xC0DE0000 + index), be32(1), bytes(267)))

    def test_a_tunnel_from_open_to_close(self):
        rp = self.rp_client
        ok = be32(1)
        self.assertEqual(rp.request(init_completed(0x10, 1)), response(MSG_PAL, 2, be32(0x10), ok))
        self.assertEqual(rp.request(intf_attach(0x11, 1, TUNNEL_ID)), response(MSG_PAL, 5, be32(0x11), ok))
        svti = socket.if_nametoindex(f"svti{TUNNEL_ID}")
        self.assertEqual(rp.request(peer_insert(0x12, 0x100, 0x77, 1))[-4:], ok)
        ace = ace_record(1, 0x0A010000, 16, 0x0A020000, 16, protocol=6, ports=(1000, 2000))
        self.assertEqual(rp.request(acl_modify(0x13, 1, 2, ace + notify_actions(0xABCD))),
                         response(MSG_PAL, 9, be32(0x13), ok))

        self.send_keys(INBOUND)
        self.send_keys(OUTBOUND)
        self.assertEqual(self.kernel.sas(), [])  # keys alone never reach the kernel
        self.assertEqual(rp.request(spi_insert(0x14, 1, 0x1111, LOCAL, REMOTE,
                                               ace + decrypt_action(0x1001, TUNNEL_ID))),
                         response(MSG_PAL, 13, be32(0x14), be32(0x1001), ok))
        self.assertEqual(rp.request(cflow_insert(0x15, 1, encrypt_action(0x2002))),
                         response(MSG_PAL, 15, be32(0x15), be64(0x2002), ok))
        self.assertEqual(self.kernel.sas(), [kernel_sa(INBOUND, svti), kernel_sa(OUTBOUND, svti)])
        # The same SPI insert again finds no key material: the flow id, success, nothing new.
        self.assertEqual(rp.request(spi_insert(0x16, 1, 0x1111, LOCAL, REMOTE, decrypt_action(0x1001))),
                         response(MSG_PAL, 13, be32(0x16), be32(0x1001), ok))
        self.assertEqual(len(self.kernel.sas()), 2)

        # Deleting the outbound flow first, then the inbound one, empties the kernel.
        for index, request_handle in ((OUTBOUND[0], 0xD1), (INBOUND[0], 0xD2)):
            self.assertEqual(rp.request(delete_flow(request_handle, index)),
                             response(MSG_CEAL, 4, be32(request_handle), ok))
        self.assertEqual(self.kernel.sas(), [])

        self.assertEqual(rp.request(acl_modify(0x17, 1, 4)), response(MSG_PAL, 9, be32(0x17), ok))
        self.assertEqual(self.kernel.policies(), [])
        self.assertEqual(rp.request(intf_attach(0x18, 0, TUNNEL_ID)), response(MSG_PAL, 5, be32(0x18), ok))
        self.assertEqual(rp.request(sadb_delete(0x19, 1)), response(MSG_PAL, 3, be32(0x19), ok))

        rows = counter_rows(self.agent)
        self.assertEqual(rows["KESTRIX_PAL_SPI_INSERT"], (2, 2, 0))
        self.assertEqual(rows["KESTRIX_PAL_CFLOW_INSERT"], (1, 1, 0))
        self.assertEqual(rows["KESTRIX_CEAL_CE_CREATE_KEY_BY_KEYS"], (2, 2, 0))
        self.assertEqual(rows["KESTRIX_CEAL_CE_DELETE_FLOW"], (2, 2, 0))
