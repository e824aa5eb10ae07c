"""Mock of the service that reads boot-block parameters.

Parameters: values (parameter name: text).
"""

BUS_NAME = "com.norv.PolicyKitSystem"
MAIN_OBJ = "/com/norv/PolicyKitSystem"
MAIN_IFACE = "com.norv.PolicyKitSystem"
SYSTEM_BUS = True


def load(mock, parameters):
    mock.values = {str(k): str(v) for k, v in parameters.get("values", {}).items()}
    mock.AddMethod(MAIN_IFACE, "ReadBootblockParam", "s", "s", "ret = self.values[args[0]]")
