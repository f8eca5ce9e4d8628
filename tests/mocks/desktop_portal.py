"""The desktop's portal for python-dbusmock, as far as opening a page goes: it takes the URL and says that it will."""

BUS_NAME = "org.freedesktop.portal.Desktop"
MAIN_OBJ = "/org/freedesktop/portal/desktop"
MAIN_IFACE = "org.freedesktop.portal.OpenURI"
SYSTEM_BUS = False


def load(mock, parameters):
    mock.AddMethod(MAIN_IFACE, "OpenURI", "ssa{sv}", "o", 'ret = "/org/freedesktop/portal/desktop/request/1"')
