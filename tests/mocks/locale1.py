"""locale1 for python-dbusmock. Like systemd's, it announces a change by the property's name only."""

import dbus
from dbusmock import MOCK_IFACE

BUS_NAME = "org.freedesktop.locale1"
MAIN_OBJ = "/org/freedesktop/locale1"
MAIN_IFACE = "org.freedesktop.locale1"
SYSTEM_BUS = True


def load(mock, parameters):
    mock.AddProperties(MAIN_IFACE, dbus.Dictionary({
        "Locale": dbus.Array(["LANG=en_US.UTF-8"], signature="s"), "X11Layout": "ch,us"}, signature="sv"))


@dbus.service.method(MOCK_IFACE, in_signature="sv")
def Change(self, name, value):
    self.props[MAIN_IFACE][name] = value
    self.EmitSignal(dbus.PROPERTIES_IFACE, "PropertiesChanged", "sa{sv}as",
                    (MAIN_IFACE, dbus.Dictionary({}, signature="sv"), dbus.Array([name], signature="s")))
