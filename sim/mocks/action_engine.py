"""Mock of the action engine: it stores the templates that it is given.

Parameters: templates (list of ids that are there from the start).
"""

BUS_NAME = "com.norv.Event.ActionEngine.User"
MAIN_OBJ = "/com/norv/Event/ActionEngine"
MAIN_IFACE = "com.norv.Event.ActionEngine.User"
SYSTEM_BUS = True

TEMPLATE_IFACE = "com.norv.Event.ActionEngine.ActionTemplate"


def load(mock, parameters):
    mock.templates = [str(template) for template in parameters.get("templates", [])]
    mock.AddMethods(
        TEMPLATE_IFACE,
        [
            (
                "List",
                "",
                "a(sssa{ss})",
                "ret = [(t, t, '', dbus.Dictionary({}, signature='ss')) for t in self.templates]",
            ),
            (
                "AddFromFile",
                "s",
                "",
                "self.templates.append(args[0].rsplit('/', 1)[1].removesuffix('.xml'))",
            ),
            ("Remove", "s", "", "self.templates.remove(args[0])"),
            ("Templates", "", "as", "ret = dbus.Array(self.templates, signature='s')"),
        ],
    )
