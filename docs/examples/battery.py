"""The service Battery: asks for the radio's battery, and says when it is low."""
import collections
import os

from jeepney import DBusAddress, HeaderFields, MatchRule, MessageType
from jeepney import new_error, new_method_call, new_method_return
from jeepney.bus_messages import message_bus
from jeepney.io.blocking import Proxy, open_dbus_connection

import Kova_pb2

READY = 5
KOVA = DBusAddress('/zelt/ServiceIPC', 'zelt.service.Kova', 'zelt.ServiceIPC1')

bus = open_dbus_connection(os.environ['ZELT_BUS_ADDRESS'])
names = Proxy(message_bus, bus, timeout=5)


def send(message):
    """True when Kova took it."""
    content = (message.DESCRIPTOR.full_name, message.SerializeToString(), 0)
    answer = bus.send_and_get_reply(new_method_call(KOVA, 'Send', 'sayt', content), timeout=5)
    return answer.header.message_type is MessageType.method_return and answer.body[0]


def is_kova(call):
    sender = call.header.fields[HeaderFields.sender]
    return names.GetNameOwner('zelt.service.Kova') == (sender,)


def heard(type_name, payload):
    """False when this service has no use for it."""
    if type_name != 'Kova.BatteryLevel':
        return False
    level = Kova_pb2.BatteryLevel.FromString(payload)
    print(f'battery {level.percent} %{", low" if level.percent < 15 else ""}', flush=True)
    return True


def answer(call):
    member = call.header.fields[HeaderFields.member]
    if member == 'Send':
        return new_method_return(call, 'b', (is_kova(call) and heard(*call.body[:2]),))
    if member == 'Get' and call.body[1] == 'State':
        return new_method_return(call, 'v', (('u', READY),))
    return new_error(call, 'org.freedesktop.DBus.Error.UnknownMethod')


calls = collections.deque()
with bus.filter(MatchRule(type='method_call'), queue=calls):
    if names.RequestName('zelt.service.Battery', 4) != (1,):
        raise SystemExit('somebody else is Battery')
    if not send(Kova_pb2.BatteryLevelRequest()):
        raise SystemExit('Kova does not take the request')
    while True:
        bus.send(answer(bus.recv_until_filtered(calls)))
