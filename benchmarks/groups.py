"""One round of each group of measurements."""

import filecmp
import os
import random
import signal
import socket
import subprocess
import threading
import time

import rows
import systems
from systems import BINARIES, Bridge, Kova, Mosquitto, Place, Stack, Unable, peer, peer_env

LINE_BYTES_PER_SECOND = 150_000
TURN_US = 250


def alternate(things, number):
    """The order turns round from round to round, so that none is always the first."""
    return list(things) if number % 2 == 0 else list(reversed(things))


class Results(dict):
    """What a round measured. `bad` says why a value must not be used; `notes` how it came about."""

    def __init__(self):
        super().__init__()
        self.bad = {}
        self.notes = {}

    def put(self, who, measure, value):
        self[who, measure] = value

    def check(self, who, measure, run):
        """Takes a run of the load programs only if nothing was lost and the order was kept."""
        if run.get('lost', 0) or not run.get('in_order', 1) or not run.get('count', 1):
            self.bad[who, measure] = f"lost {run.get('lost', 0):g} of {run.get('count', 0):g}" if (
                run.get('lost') or not run.get('count')) else 'out of order'
        return run


def relay(options, number, wanted):
    found = Results()
    place = options.measured
    with Kova(place) as kova, Bridge(place) as bridge, Mosquitto(place) as mosquitto, \
            Mosquitto(place, single=True) as broker:
        pair = alternate([kova, bridge], number)
        everybody = alternate([kova, bridge, mosquitto, broker], number)
        for stack in everybody:
            stack.service.ask('roundtrip', 32, 1, options.seconds / 4, 0)
        for size in rows.SIZES:
            for stack in pair if wanted(f'trip_{size}') else []:
                before = stack.subject.cpu_seconds()
                run = stack.service.ask('roundtrip', size, 1, options.seconds, 0)
                used = stack.subject.cpu_seconds() - before
                for measure in ('p50', 'p99'):
                    found.put(stack.name, f'trip_{size}_{measure}', run[measure])
                found.put(stack.name, f'trip_{size}_cpu', used / max(run['count'], 1) * 1e6)
                for measure in ('p50', 'p99', 'cpu'):
                    found.check(stack.name, f'trip_{size}_{measure}', run)
        for stack in pair if wanted('down_p50') else []:
            run = found.check(stack.name, 'down_p50',
                              stack.radio.ask('down', 'relayed', 32, 1, options.seconds, 1))
            found.put(stack.name, 'down_p50', run['p50'])
        for count in (1, 5):
            measure = f'publish_{count}_p50'
            for stack in pair if wanted(measure) else []:
                subscribers = stack.subscribers('Kova.FileAccessWriteSessionEnd', 1, count)
                run = found.check(stack.name, measure, stack.radio.ask(
                    'down', 'published', 32, 1, options.seconds, count))
                found.put(stack.name, measure, run['p50'])
                stack.dismiss(subscribers)
        for size in rows.BOTH_ENDS:
            for kind in ('both', 'up', 'down'):
                measure = f'rate_{kind}_{size}'
                for stack in everybody if wanted(measure) else []:
                    run = {'both': lambda: stack.service.ask('roundtrip', size, 32,
                                                             options.seconds, 0),
                           'up': lambda: stack.service.ask('up', size, 32, options.seconds),
                           'down': lambda: stack.radio.ask('down', 'relayed', size, 32,
                                                           options.seconds, 1)}[kind]()
                    found.check(stack.name, measure, run)
                    found.put(stack.name, measure, run['count'] / max(run['seconds'], 1e-9))
    return found


def random_file(path, size):
    path.write_bytes(random.Random(size).randbytes(size))
    return path


def bare_transfer(stack, kind, where, chunk, image):
    """Runs the bare stop-and-wait to its end; what it says."""
    program = stack.run(BINARIES / 'bench_stopwait', kind, where, chunk, image)
    said = program.read()
    stack.dismiss([program])
    return said


def stored_rate(stack, image):
    stored = stack.radio.ask('stored')
    if not stored['complete'] or not filecmp.cmp(image, stack.store, shallow=False):
        raise RuntimeError('what the radio stored is not what was sent')
    return stored['bytes'] / stored['seconds']


class BareRadio(Stack):
    """A radio of its own for the bare stop-and-wait."""

    def start(self):
        self.start_radio('link', self.folder / 'port')


def firmware(options, number, wanted):
    found = Results()
    place = options.measured
    with Kova(place) as kova, BareRadio(place) as bare:
        for chunk in rows.CHUNKS:
            measure = f'tcp_{chunk}'
            if not wanted(measure):
                continue
            image = random_file(kova.folder / 'image', chunk * options.chunks)
            kova.set_chunk(chunk)

            def through_kova():
                if not kova.service.ask('firmware', image, 'fw')['ok']:
                    raise RuntimeError('the transfer failed')
                found.put('kova', measure, stored_rate(kova, image))

            def without():
                bare_transfer(bare, 'tcp', bare.port(), chunk, image)
                found.put('bare', measure, stored_rate(bare, image))

            for take in alternate([through_kova, without], number):
                take()
        if wanted('tcp_4096'):
            found.put('tftp-1468', 'tcp', tftp_rate(bare))
    return found


def tftp_rate(stack, size=1 << 26):
    """What one transfer takes, less what one of a single byte takes, so without the start."""
    folder = stack.folder / 'tftp'
    folder.mkdir()
    port = systems.free_port()
    server = stack.run(peer('usr/sbin/in.tftpd'), '-L', '-u', 'root', '-a', f'127.0.0.1:{port}',
                       '-c', '-s', folder, env=peer_env())
    image = random_file(folder / 'image', size)
    one = random_file(folder / 'one', 1)

    def put(file):
        start = time.monotonic()
        done = subprocess.run(
            [peer('usr/bin/atftp'), '--option', 'blksize 1468', '-p', '-l', str(file), '-r',
             f'{file.name}.stored', '127.0.0.1', str(port)], env={**os.environ, **peer_env()},
            preexec_fn=stack.place.enter, capture_output=True, check=False)
        if done.returncode != 0:
            raise RuntimeError(f'atftp: {done.stderr.decode()}')
        return time.monotonic() - start

    end = time.monotonic() + 5
    while True:  # it has no other way to say that it listens
        try:
            put(one)
            break
        except RuntimeError:
            if time.monotonic() > end:
                raise
    seconds = put(image) - min(put(one) for _ in range(3))
    if not filecmp.cmp(image, folder / 'image.stored', shallow=False):
        raise RuntimeError('TFTP stored something else')
    stack.dismiss([server])
    return size / seconds


class Line(Stack):
    """A paced line, and for the bare stop-and-wait a radio at its end."""

    def __init__(self, place, line_place, radio=True):
        super().__init__(place)
        self.line_place = line_place
        self.with_radio = radio
        self.camera = self.folder / 'camera'
        self.far = self.folder / 'far'

    def start(self):
        self.pacer = self.run(BINARIES / 'bench_line', self.camera, self.far,
                              LINE_BYTES_PER_SECOND, TURN_US, place=self.line_place)
        self.pacer.read()
        if self.with_radio:
            self.start_radio('serial', self.far)


def can_make_namespaces():
    return subprocess.run(['unshare', '--mount', 'true'], capture_output=True,
                          check=False).returncode == 0


def line(options, number, wanted):
    if not can_make_namespaces():
        raise Unable('needs the right to make a mount namespace: Kova opens /dev/ttyS2')
    found = Results()
    place = options.measured
    size = options.line_bytes
    with Line(place, options.line, radio=False) as wire, \
            Kova(place, line=(wire.camera, wire.far)) as kova, \
            Line(place, options.line) as bare:
        image = random_file(kova.folder / 'image', size)
        carrying = late = 0

        def note_lateness(pacer):
            nonlocal carrying, late
            report = pacer.ask('carried')
            for end in ('radio', 'camera'):
                carrying += report[f'to_{end}_carrying']
                late += report[f'to_{end}_late']

        for chunk in rows.LINE_CHUNKS:
            if not wanted(f'line_{chunk}'):
                continue
            kova.set_chunk(chunk)

            def through_kova():
                wire.pacer.ask('carried')
                if not kova.service.ask('firmware', image, 'fw')['ok']:
                    raise RuntimeError('the transfer failed')
                found.put('kova', f'line_{chunk}', stored_rate(kova, image))
                note_lateness(wire.pacer)

            def without():
                bare.pacer.ask('carried')
                bare_transfer(bare, 'serial', bare.camera, chunk, image)
                found.put('bare', f'line_{chunk}', stored_rate(bare, image))
                note_lateness(bare.pacer)

            for take in alternate([through_kova, without], number):
                take()
        if carrying:
            found.put('kova', 'line_exact', late / carrying * 100)
        if wanted('line_'):
            for name, send, take in MODEMS:
                found.put(name, 'line', modem_rate(options, send, take, image))
        for chunk in (4096, 16384, 32768) if number == 0 else []:
            if wanted(f'command_{chunk}'):
                found.put('kova', f'command_{chunk}', command_time(kova, chunk))
    return found


MODEMS = (('xmodem-1k', ['sx', '-b', '-q', '-k'], ['rx', '-b', '-q', '-c', 'image']),
          ('zmodem', ['sz', '-b', '-q', '-8'], ['rz', '-b', '-y', '-q']))


def modem_rate(options, send, take, image):
    """From the first byte on the line to the last, so without the programs' start and end."""
    with Line(options.measured, options.line, radio=False) as wire:
        stored = wire.folder / 'stored'
        stored.mkdir()
        with socket.socket(socket.AF_UNIX) as far:
            far.connect(str(wire.far))
            receiver = subprocess.Popen(
                [peer(f'usr/bin/{take[0]}'), *take[1:]], stdin=far, stdout=far, cwd=stored,
                stderr=subprocess.DEVNULL, preexec_fn=wire.place.enter)
            terminal = os.open(wire.camera, os.O_RDWR | os.O_NOCTTY)
            try:
                subprocess.run([peer(f'usr/bin/{send[0]}'), *send[1:], str(image)], stdin=terminal,
                               stdout=terminal, stderr=subprocess.DEVNULL, timeout=60, check=True,
                               preexec_fn=wire.place.enter)
                report = wire.pacer.ask('carried')
            finally:
                os.close(terminal)
                receiver.kill()  # it may wait for a last word that its peer no longer sends
                receiver.wait()
        # XMODEM fills the last block up.
        if not next(stored.iterdir()).read_bytes().startswith(image.read_bytes()):
            raise RuntimeError(f'{take[0]} stored something else')
        return image.stat().st_size / report['to_radio_span']


def command_time(kova, chunk):
    """A message there and back, again and again, while a transfer is under way."""
    kova.set_chunk(chunk)
    image = random_file(kova.folder / 'command-image', 196_608)  # 1.3 s
    push = subprocess.Popen([BINARIES / 'zeltcli', 'firmware', 'push', image, '--as', 'fw'],
                            env={**os.environ, **kova.env}, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    try:
        time.sleep(0.3)
        run = kova.service.ask('roundtrip', 32, 1, 0.7, 0)
    finally:
        push.wait(60)
    return run['p50'] / 1000


class Starter(Kova):
    """All but Kova, which is started again and again."""

    def start(self):
        self.prepare()
        self.start_service('bus', self.address)


def ready(options, number, wanted):
    del wanted
    found = Results()
    with Starter(options.measured) as stack:
        log = stack.folder / 'started.log'
        commands = {'kova': [BINARIES / 'kova'],
                    'minimal': [BINARIES / 'bench_minimal', stack.address]}
        taken = {name: [] for name in commands}
        for turn in range(options.starts):
            for name in alternate(list(commands), number + turn):
                taken[name].append(stack.service.ask('ready', log, *commands[name])['ms'])
        for name, times in taken.items():
            if 0 in times:
                found.bad[name, 'ready'] = 'never said that it is ready'
            found.put(name, 'ready', sorted(times)[len(times) // 2])
    return found


class Peers(Stack):
    """Daemons of the same kind of work, with nothing attached, on a bus of their own."""

    def start(self):
        self.start_bus()
        environment = {**peer_env(), 'DBUS_SYSTEM_BUS_ADDRESS': self.address}
        plugins = next(iter(systems.PEERS.glob('usr/lib/*/ModemManager')),
                       '/usr/lib/x86_64-linux-gnu/ModemManager')
        self.daemons = {
            'ofonod': self.run(peer('usr/sbin/ofonod'), '-n', env=environment),
            'ModemManager': self.run(peer('usr/sbin/ModemManager'), f'--test-plugin-dir={plugins}',
                                     env=environment),
            'gpsd': self.run(peer('usr/sbin/gpsd'), '-N', '-n', '-S', systems.free_port(), '-F',
                             self.folder / 'gpsd', env=environment)}


def stripped_size(program, folder):
    stripped = folder / 'stripped'
    subprocess.run(['strip', '-o', stripped, program], check=True)
    return stripped.stat().st_size


def idle(options, number, wanted):
    del number, wanted
    found = Results()
    normal = Place(systems.MEASURED_CPU, 0)
    with Kova(normal) as kova, Peers(normal) as peers:
        everybody = {'kova': kova.subject, **peers.daemons}

        def wakeups(seconds):
            before = {name: program.switches() for name, program in everybody.items()}
            time.sleep(seconds)
            return {name: (program.switches() - before[name]) / seconds
                    for name, program in everybody.items()}

        time.sleep(options.settle)
        with_link = wakeups(options.idle)
        kova.tool('link', 'down')
        time.sleep(1)
        without_link = wakeups(options.idle)
        found.put('kova', 'wakeups_up', with_link['kova'])
        found.put('kova', 'wakeups_down', without_link['kova'])
        for name, program in everybody.items():
            found.put(name, 'pss', program.proportional_kib())
            found.put(name, 'threads', program.status('Threads'))
            found.put(name, 'size', stripped_size(os.readlink(f'/proc/{program.pid}/exe'),
                                                  kova.folder))
            if name != 'kova':
                found.put(name, 'wakeups', with_link[name])
    return found


def counts(options, number, wanted):
    del number
    found = Results()
    # By the test that holds them to a limit.
    done = subprocess.run([BINARIES / 'test_counts'], capture_output=True, text=True, check=False)
    for text in done.stdout.splitlines():
        words = text.split()
        if words[:1] == ['count']:
            found.put('kova', words[1], float(words[2]))
    if not found:
        raise Unable('test_counts counted nothing: ' + done.stdout[-200:].replace('\n', ' '))
    if wanted('system_calls'):
        try:
            with Kova(options.measured) as kova, Bridge(options.measured) as bridge:
                found.put('kova', 'system_calls', system_calls(kova) - system_calls(bridge))
        except Unable as unable:
            found.notes['kova', 'system_calls'] = f'under strace, which adds some; {unable}'
    return found


def system_calls(stack):
    """Of a message there and back; counted by the kernel, which disturbs nothing."""
    stack.service.ask('roundtrip', 32, 1, 0.1, 0)
    counter = subprocess.Popen(['perf', 'stat', '-x', ';', '-e', 'raw_syscalls:sys_enter', '-p',
                                str(stack.subject.pid)], stderr=subprocess.PIPE, text=True)
    time.sleep(0.3)  # perf does not tell when it has begun
    run = stack.service.ask('roundtrip', 32, 1, 60, 2000)
    counter.send_signal(signal.SIGINT)
    said = counter.communicate()[1]
    first = said.split(';')[0]
    if not first.isdigit():
        raise Unable('perf is not permitted here')
    return int(first) / run['count']


def settled_memory(program):
    """Anonymous memory, once it no longer changes."""
    before = None
    for _ in range(40):
        now = program.status('RssAnon')
        if now == before:
            break
        before = now
        time.sleep(0.25)
    return now


def growth(options, number, wanted):
    del number
    found = Results()
    for name, (_, amounts) in rows.GROWTH.items():
        if not wanted(name):
            continue
        # Subscribers share no processor with Kova: else what grows is how cold they leave its caches.
        others = options.beside if name == 'subscribers' else options.measured
        with Kova(others, kova_place=options.measured) as kova:
            GROW[name](kova, 200)  # what is made once is there
            start = settled_memory(kova.subject)
            costs = {}
            for amount in 2 * list(amounts):
                wanted_items = max(amount // options.shrink, min(amounts))
                if amount >= 100_000 and amount in costs:
                    continue  # once takes long enough
                before = kova.subject.cpu_seconds()
                items, fault = GROW[name](kova, wanted_items)
                cost = (kova.subject.cpu_seconds() - before) / max(items, 1) * 1e6
                # What else the machine does can only make it look dearer.
                costs[amount] = min(cost, costs.get(amount, cost))
                if fault:
                    found.bad['kova', f'{name}_most'] = fault
            most = costs.pop(max(costs))
            found.put('kova', f'{name}_least', min(costs.values()))
            found.put('kova', f'{name}_most', most)
            found.put('kova', f'{name}_memory', settled_memory(kova.subject) - start)
    return found


def grow_backlog(kova, amount):
    """Kova's handlers wait for answers that the radio does not give, while messages come in."""
    holds = [subprocess.Popen([BINARIES / 'zeltcli', 'inject', '0999'], stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, env={**os.environ, **kova.env})
             for _ in range(1 + amount // 40_000)]
    time.sleep(0.3)
    run = kova.service.ask('burst', amount, 32, 60, patience=90)
    for hold in holds:
        hold.wait(30)
    fault = ''
    if run['taken'] < amount or run['lost']:
        fault = f"took {run['taken']:g} of {amount}, lost {run['lost']:g} of them"
    return run['taken'], fault


def grow_subscribers(kova, amount):
    """An item is a publication; they go to all subscribers."""
    subscribers = kova.subscribers('Kova.FileAccessWriteSessionEnd', amount)
    run = kova.radio.ask('batches', 'published', 32, 64, 1, amount)
    kova.dismiss(subscribers)
    return run['count'], f"lost {run['lost']:g}" if run['lost'] else ''


def grow_handles(kova, amount):
    """An item is a handle: asked for, published, answered. Few at a time, the same is repeated."""
    items = answered = 0
    while items < 2000:
        kova.service.tell('handles', amount)
        kova.service.read()
        kova.radio.tell('open', amount)
        answered += kova.service.read()['requests']
        kova.radio.read()
        items += amount
    return items, '' if answered == items else f'{answered:g} of {items} were published'


def grow_messages(kova, amount):
    """There and back are two. With pauses, so that the rest of the machine gets its turn."""
    done = 0
    while done < amount:
        run = kova.service.ask('roundtrip', 32, 32, 0.5, max((amount - done) // 2, 1))
        done += 2 * run['count']
        if run['lost']:
            return done, f"lost {run['lost']:g}"
        time.sleep(0.05)
    return done, ''


GROW = {'backlog': grow_backlog, 'subscribers': grow_subscribers, 'handles': grow_handles,
        'messages': grow_messages}


def simulator(options, number, wanted):
    """radiosim, with the bare stop-and-wait in the camera's place."""
    del number, wanted
    found = Results()
    with Stack(options.measured) as stack:
        port = stack.folder / 'port'
        terminal = stack.folder / 'tty'
        tcp = stack.run(BINARIES / 'radiosim', '--listen', '127.0.0.1:0', '--port-file', port,
                        name='radiosim-tcp')
        paced = stack.run(BINARIES / 'radiosim', '--pty', terminal, '--bps', '1500000',
                          name='radiosim-paced')
        systems.wait_for(port.exists, 'radiosim')
        systems.wait_for(terminal.exists, 'radiosim')
        for program in (tcp, paced):  # it prints its events, and would wait for a reader
            drain(program)
        image = random_file(stack.folder / 'image', 4096 * options.simulator_chunks)
        before = tcp.cpu_seconds()
        said = bare_transfer(stack, 'tcp', int(port.read_text()), 4096, image)
        found.put('kova', 'chunk', (tcp.cpu_seconds() - before) / said['chunks'] * 1e6)
        image = random_file(stack.folder / 'image', min(options.line_bytes, 131072))
        said = bare_transfer(stack, 'serial', terminal, 4096, image)
        ideal = (said['sent'] + said['received']) / LINE_BYTES_PER_SECOND
        found.put('kova', 'deviation', abs(said['seconds'] / ideal - 1) * 100)
    return found


def drain(program):
    threading.Thread(target=program.process.stdout.read, daemon=True).start()


GROUPS = {'relay': relay, 'firmware': firmware, 'line': line, 'counts': counts, 'ready': ready,
          'idle': idle, 'growth': growth, 'simulator': simulator}
# What is not a matter of rounds is taken once.
ONCE = {'counts', 'idle', 'growth', 'simulator'}
