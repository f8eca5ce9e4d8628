"""GeoClue2 for python-dbusmock: one client, and locations where and when the test says."""

import dbus
from dbusmock import MOCK_IFACE, mockobject

BUS_NAME = "org.freedesktop.GeoClue2"
MAIN_OBJ = "/org/freedesktop/GeoClue2/Manager"
MAIN_IFACE = "org.freedesktop.GeoClue2.Manager"
SYSTEM_BUS = True

CLIENT = "/org/freedesktop/GeoClue2/Client/1"
CLIENT_IFACE = "org.freedesktop.GeoClue2.Client"
LOCATION_IFACE = "org.freedesktop.GeoClue2.Location"
UNKNOWN_ALTITUDE = -1.7976931348623157e308


def load(mock, parameters):
    mock.AddMethod(MAIN_IFACE, "GetClient", "", "o", f'ret = dbus.ObjectPath("{CLIENT}")')
    mock.AddObject(CLIENT, CLIENT_IFACE, {"DesktopId": "", "RequestedAccuracyLevel": dbus.UInt32(0)},
                   [("Start", "", "", ""), ("Stop", "", "", "")])
    mock.places = 0


@dbus.service.method(MOCK_IFACE, in_signature="ddd")
def Locate(self, latitude, longitude, accuracy):
    self.places += 1
    path = f"{CLIENT}/Location/{self.places}"
    self.AddObject(path, LOCATION_IFACE, {
        "Latitude": dbus.Double(latitude), "Longitude": dbus.Double(longitude), "Accuracy": dbus.Double(accuracy),
        "Altitude": dbus.Double(34.0 if accuracy < 30 else UNKNOWN_ALTITUDE), "Speed": dbus.Double(-1.0)}, [])
    mockobject.objects[CLIENT].EmitSignal(CLIENT_IFACE, "LocationUpdated", "oo",
                                          (dbus.ObjectPath("/"), dbus.ObjectPath(path)))
