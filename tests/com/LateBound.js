// Late-bound client: the handler by ProgID, every method through IDispatch. Prints one line per
// call; the CTest test judges the output (cscript exits 0 even when a script fails).
function hex(n) {
    return "0x" + ((n < 0 ? n + 0x100000000 : n).toString(16).toUpperCase());
}
function call(name, fn) {
    try {
        WScript.Echo(name + " returned " + fn());
    } catch (e) {
        WScript.Echo(name + " failed " + hex(e.number));
    }
}

var handler = new ActiveXObject("Moradel.NotificationHandler.1.06");
var instances = null;
call("GetInstancesBeforeInitialize", function () { return handler.GetInstances(59, instances); });
call("ComponentInitialize", function () { return handler.ComponentInitialize("Notify", "2.5", "Agent"); });
call("Initialize", function () { return handler.Initialize("root\\oxl1v2\\KM_Notification"); });
call("GetInstances", function () { return handler.GetInstances(59, instances); });
call("GetInstancesUnknownId", function () { return handler.GetInstances(4, instances); });
call("DeleteObsoleteInstances", function () { return handler.DeleteObsoleteInstances(59); });
var byVersionIndependentProgId = new ActiveXObject("Moradel.NotificationHandler");
call("SecondHandlerInitialize", function () { return byVersionIndependentProgId.Initialize("root\\oxl1v2\\KM_Notification"); });
WScript.Echo("done");
