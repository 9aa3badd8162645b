"""Every row of the table, in one place: what is compared with what, and what is to be reached.

A group (a function of relay.py, transfer.py or process.py) takes one round of measurements and
returns {(who, measure): value}. A row divides, within the same round, Kova's value by the partner's;
without a partner it shows Kova's. Rows without a limit are there to be known.
"""

import collections

Row = collections.namedtuple('Row', 'name group text measure unit partner limit against who')


def at_most(value):
    return ('<=', value)


def at_least(value):
    return ('>=', value)


def row(name, group, text, measure, unit, partner=None, limit=None, against=None, who='kova'):
    """`against`: the partner's measure where it has another name than Kova's."""
    return Row(name, group, text, measure, unit, partner, limit, against or measure, who)


def size_text(size):
    return f'{size} B' if size < 1024 else f'{size // 1024} KiB'


SIZES = (32, 1024, 16384)
BOTH_ENDS = (32, 16384)
CHUNKS = (512, 4096, 32768)
LINE_CHUNKS = (4096, 16384)
COMMAND_CHUNKS = (4096, 16384, 32768)


def relay_rows():
    for size in SIZES:
        yield row(f'latency_{size}', 'relay', f'relay there and back, {size_text(size)}, p50',
                  f'trip_{size}_p50', 'us', 'bridge', at_most(1.35 if size > 1024 else 1.25))
    for size in SIZES:
        yield row(f'latency_p99_{size}', 'relay', f'relay there and back, {size_text(size)}, p99',
                  f'trip_{size}_p99', 'us', 'bridge', at_most(1.5))
    for name, text in (('down', 'radio to one service'), ('publish_1', 'published to 1 subscriber'),
                       ('publish_5', 'published to 5 subscribers')):
        yield row(name, 'relay', f'{text}, 32 B, p50', f'{name}_p50', 'us', 'bridge', at_most(1.3))
    for kind, text, limit in (('both', 'there and back', 0.75), ('up', 'to the radio', 0.8),
                              ('down', 'from the radio', 0.8)):
        for size in BOTH_ENDS:
            what = f'rate {text}, {size_text(size)}, window 32'
            measure = f'rate_{kind}_{size}'
            yield row(measure, 'relay', what, measure, '1/s', 'bridge', at_least(limit))
            yield row(f'{measure}_mosquitto', 'relay', what, measure, '1/s', 'mosquitto',
                      at_least(1.0))
    for size in BOTH_ENDS:
        measure = f'rate_both_{size}'
        what = f'the bridge: there and back, {size_text(size)}, window 32'
        for partner in ('mosquitto', 'broker'):
            yield row(f'bridge_{size}_{partner}', 'relay', what, measure, '1/s', partner,
                      who='bridge')
    for size in SIZES:
        yield row(f'cpu_{size}', 'relay', f'processor time, there and back, {size_text(size)}',
                  f'trip_{size}_cpu', 'us', 'bridge', at_most(2.2 if size > 1024 else 2.0))


def firmware_rows():
    for chunk in CHUNKS:
        yield row(f'firmware_{chunk}', 'firmware', f'firmware over TCP, {size_text(chunk)}',
                  f'tcp_{chunk}', 'B/s', 'bare', at_least(0.75 if chunk > 4096 else 0.6))
    yield row('firmware_tftp', 'firmware', 'firmware over TCP, 4 KiB', 'tcp_4096', 'B/s',
              'tftp-1468', at_least(1.2), 'tcp')
    for chunk in LINE_CHUNKS:
        yield row(f'line_{chunk}', 'line', f'firmware on 1.5 Mbit/s, {size_text(chunk)}',
                  f'line_{chunk}', 'B/s', 'bare', at_least(0.99) if chunk == 4096 else None)
        for partner in ('xmodem-1k', 'zmodem'):
            yield row(f'line_{chunk}_{partner}', 'line',
                      f'firmware on 1.5 Mbit/s, {size_text(chunk)}', f'line_{chunk}', 'B/s',
                      partner, at_least(1.0) if chunk == 16384 else None, 'line')
    for chunk in COMMAND_CHUNKS:
        yield row(f'command_{chunk}', 'line',
                  f'a command during a transfer, {size_text(chunk)}, p50', f'command_{chunk}', 'ms')
    yield row('line_exact', 'line', "bench's own line, deviation", 'line_exact', '%', None,
              at_most(0.5))


def process_rows():
    yield row('allocations_up', 'counts', 'allocations of a message to the radio', 'allocations_up',
              'n', None, at_most(14))
    yield row('allocations_down', 'counts', 'allocations of a message from the radio',
              'allocations_down', 'n', None, at_most(16))
    yield row('system_calls', 'counts', "system calls there and back beyond the bridge's",
              'system_calls', 'n', None, at_most(9))
    yield row('ready', 'ready', 'from exec to ready', 'ready', 'ms', 'minimal', at_most(1.8))
    for partner, limit in (('ofonod', at_most(0.5)), ('ModemManager', at_most(0.2)),
                           ('gpsd', None)):
        yield row(f'memory_{partner}', 'idle', 'idle, proportional memory', 'pss', 'KiB', partner,
                  limit)
    yield row('wakeups_down', 'idle', 'idle, wake-ups, link down', 'wakeups_down', '1/s', None,
              at_most(0))
    # One for each keep-alive of either side, every 0.8 s.
    yield row('wakeups_up', 'idle', 'idle, wake-ups, link up', 'wakeups_up', '1/s', None,
              at_most(2.5))
    for partner in ('ofonod', 'ModemManager', 'gpsd'):
        yield row(f'wakeups_{partner}', 'idle', 'idle, wake-ups, link up', 'wakeups_up', '1/s',
                  partner, None, 'wakeups')
        yield row(f'threads_{partner}', 'idle', 'idle, threads', 'threads', 'n', partner)
        yield row(f'size_{partner}', 'idle', 'program, stripped', 'size', 'B', partner,
                  at_most(0.65) if partner == 'ofonod' else None)


GROWTH = {
    # name: (what there is more and more of, how many)
    'backlog': ('messages queued in Kova', (100, 1000, 10_000, 100_000)),
    'subscribers': ('subscribers of one topic', (1, 10, 100)),
    'handles': ('file handles open at the same time', (10, 1000, 10_000)),
    'messages': ('messages relayed since the start', (10_000, 1_000_000)),
}


def growth_rows():
    for name, (text, counts) in GROWTH.items():
        yield row(f'growth_{name}', 'growth', f'processor time an item, {text}: '
                  f'{counts[-1]} against fewer', f'{name}_most', 'us', 'kova',
                  at_most(1.1), f'{name}_least')
        yield row(f'memory_after_{name}', 'growth', f'memory kept after {text}: {counts[-1]}',
                  f'{name}_memory', 'KiB', None, at_most(1024))


def simulator_rows():
    yield row('radiosim_chunk', 'simulator', "radiosim's processor time for a chunk of 4 KiB",
              'chunk', 'us', None, at_most(100))
    yield row('radiosim_line', 'simulator', "radiosim's line of 1.5 Mbit/s, deviation", 'deviation',
              '%', None, at_most(0.5))


ROWS = [*relay_rows(), *firmware_rows(), *process_rows(), *growth_rows(), *simulator_rows()]
