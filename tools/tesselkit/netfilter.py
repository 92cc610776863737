"""The kernel's filter tables as the daemon's look notices them: one nf_tables
commit that changes nothing in the end (a table made and deleted in one batch),
which moves the generation the daemon's fingerprint reads, as another
program's change to the tables would. Standard library only."""
import socket
import struct

NETLINK_NETFILTER = 12
NFNL_SUBSYS_NFTABLES = 10
NFNL_MSG_BATCH_BEGIN = 0x10
NFNL_MSG_BATCH_END = 0x11
NFT_MSG_NEWTABLE = 0
NFT_MSG_DELTABLE = 2
NFTA_TABLE_NAME = 1
NFPROTO_IPV4 = 2
NLM_F_REQUEST = 0x1
NLM_F_ACK = 0x4
NLM_F_CREATE = 0x400
NLMSG_ERROR = 2


def _message(kind, flags, sequence, family, res_id=0, attributes=b""):
    body = struct.pack("=BBH", family, 0, socket.htons(res_id)) + attributes
    return struct.pack("=IHHII", 16 + len(body), kind, flags, sequence, 0) + body


def _attribute(kind, data):
    length = 4 + len(data)
    return struct.pack("=HH", length, kind) + data + b"\0" * ((4 - length % 4) % 4)


def move_generation(name="tessel_touch"):
    """In the caller's network namespace: makes and deletes an nf_tables table
    in one commit. False where the kernel has no nf_tables."""
    table = _attribute(NFTA_TABLE_NAME, name.encode() + b"\0")
    batch = b"".join([
        _message(NFNL_MSG_BATCH_BEGIN, NLM_F_REQUEST, 1, 0, NFNL_SUBSYS_NFTABLES),
        _message(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_NEWTABLE, NLM_F_REQUEST | NLM_F_CREATE | NLM_F_ACK, 2,
                 NFPROTO_IPV4, attributes=table),
        _message(NFNL_SUBSYS_NFTABLES << 8 | NFT_MSG_DELTABLE, NLM_F_REQUEST | NLM_F_ACK, 3, NFPROTO_IPV4,
                 attributes=table),
        _message(NFNL_MSG_BATCH_END, NLM_F_REQUEST, 4, 0, NFNL_SUBSYS_NFTABLES),
    ])
    try:
        sock = socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_NETFILTER)
    except OSError:
        return False
    with sock:
        sock.settimeout(2)
        sock.sendto(batch, (0, 0))
        acknowledged = set()
        while acknowledged != {2, 3}:
            reply = sock.recv(65536)
            while len(reply) >= 20:
                length, kind, _, sequence, _ = struct.unpack_from("=IHHII", reply)
                if kind == NLMSG_ERROR:
                    (error,) = struct.unpack_from("=i", reply, 16)
                    if error != 0:
                        return False
                    acknowledged.add(sequence)
                reply = reply[(length + 3) & ~3:]
                if length < 16:
                    break
    return True
