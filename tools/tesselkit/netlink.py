"""Links, addresses, default routes and bridge ports of one network namespace,
read through netlink (Debian's python3-pyroute2) on a socket opened in that
namespace once: no ip process per look, however often a test polls."""
import socket

from pyroute2 import IPRoute

from .namespaces import in_netns


class Netlink:
    def __init__(self, netns):
        self.netns = netns
        with in_netns(netns):
            self.ipr = IPRoute()

    def close(self):
        self.ipr.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def _index(self, ifname):
        found = self.ipr.link_lookup(ifname=ifname)
        return found[0] if found else None

    def _names(self):
        return {link["index"]: link.get_attr("IFLA_IFNAME") for link in self.ipr.get_links()}

    def link(self, ifname):
        """{"ifname", "address", "operstate", "master" (a port's bridge only)} of an interface, or None."""
        index = self._index(ifname)
        if index is None:
            return None
        link = self.ipr.get_links(index)[0]
        found = {"ifname": ifname, "address": link.get_attr("IFLA_ADDRESS"),
                 "operstate": link.get_attr("IFLA_OPERSTATE")}
        master = link.get_attr("IFLA_MASTER")
        if master:
            found["master"] = self._names().get(master)
        return found

    def addresses(self, ifname):
        """IPv4 addresses of an interface as "a.b.c.d/len"; none when it does not exist."""
        index = self._index(ifname)
        if index is None:
            return []
        return ["%s/%d" % (a.get_attr("IFA_ADDRESS"), a["prefixlen"])
                for a in self.ipr.get_addr(family=socket.AF_INET, index=index)]

    def default_routes(self):
        """(gateway, device, metric) of every IPv4 default route of the main table, sorted."""
        names = self._names()
        return sorted((r.get_attr("RTA_GATEWAY"), names.get(r.get_attr("RTA_OIF")), r.get_attr("RTA_PRIORITY") or 0)
                      for r in self.ipr.get_default_routes(family=socket.AF_INET))

    def ports(self, bridge):
        """Sorted names of a bridge's ports, or None when there is no such bridge."""
        index = self._index(bridge)
        if index is None:
            return None
        return sorted(link.get_attr("IFLA_IFNAME") for link in self.ipr.get_links()
                      if link.get_attr("IFLA_MASTER") == index)
