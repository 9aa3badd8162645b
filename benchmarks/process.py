"""The process itself: what it counts, how it starts, what it is when idle, and whether it grows."""

import os
import signal
import subprocess
import time

import rows
import systems
from results import Results, alternate
from systems import BINARIES, Bridge, Kova, Place, Stack, Unable, peer, peer_env


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
        except (Unable, OSError) as unable:
            found.notes['kova', 'system_calls'] = f'under strace, which adds some: {unable}'
    return found


def system_calls(stack):
    """Of a message there and back; counted by the kernel, which disturbs nothing."""
    stack.service.ask('roundtrip', 32, 1, 0.1, 0)
    counter = subprocess.Popen(['perf', 'stat', '-x', ';', '-e', 'raw_syscalls:sys_enter', '-p',
                                str(stack.subject.pid)], stderr=subprocess.PIPE, text=True)
    time.sleep(1)  # perf does not tell when it has begun
    run = stack.service.ask('roundtrip', 32, 1, 60, 2000)
    counter.send_signal(signal.SIGINT)
    counted = counter.communicate()[1].split(';')[0]
    if not counted.isdigit():
        raise Unable('perf is not permitted here')
    return int(counted) / run['count']


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
        plugins = next(iter(systems.PEERS.glob('usr/lib/*/ModemManager')), None)
        commands = {
            'ofonod': ['-n'],
            'ModemManager': [f'--test-plugin-dir={plugins}'] if plugins else [],
            'gpsd': ['-N', '-n', '-S', systems.free_port(), '-F', self.folder / 'gpsd']}
        self.daemons = {}
        self.missing = {}
        for name, words in commands.items():
            try:
                self.daemons[name] = self.run(peer(f'usr/sbin/{name}'), *words, env=environment)
            except Unable as unable:
                self.missing[name] = str(unable)


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
        for name, why in peers.missing.items():
            for measure in ('pss', 'threads', 'size', 'wakeups'):
                found.bad[name, measure] = why

        def wakeups(seconds):
            before = {name: program.switches() for name, program in everybody.items()}
            time.sleep(seconds)
            return {name: (program.switches() - before[name]) / seconds
                    for name, program in everybody.items()}

        time.sleep(options.settle)
        with_link = wakeups(options.idle)
        kova.tool('link', 'down')
        time.sleep(1)
        found.put('kova', 'wakeups_up', with_link['kova'])
        found.put('kova', 'wakeups_down', wakeups(options.idle)['kova'])
        for name, program in everybody.items():
            with found.part(name, 'pss', 'threads', 'size', 'wakeups'):
                found.put(name, 'pss', program.proportional_kib())
                found.put(name, 'threads', program.status('Threads'))
                found.put(name, 'size', stripped_size(os.readlink(f'/proc/{program.pid}/exe'),
                                                      kova.folder))
                found.put(name, 'wakeups', with_link[name])
    return found


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
        measures = [f'{name}_{what}' for what in ('least', 'most', 'memory')]
        # Subscribers share no processor with Kova: else what grows is how cold they leave its caches.
        others = options.beside if name == 'subscribers' else options.measured
        with found.part('kova', *measures), Kova(others, kova_place=options.measured) as kova:
            GROW[name](kova, 200)  # what is made once is there
            start = settled_memory(kova.subject)
            costs = {}
            for amount in 2 * list(amounts):
                if amount >= 100_000 and amount in costs:
                    continue  # once takes long enough
                before = kova.subject.cpu_seconds()
                items, fault = GROW[name](kova, max(amount // options.shrink, min(amounts)))
                cost = (kova.subject.cpu_seconds() - before) / max(items, 1) * 1e6
                # What else the machine does can only make it look dearer.
                costs[amount] = min(cost, costs.get(amount, cost))
                if fault:
                    found.bad['kova', measures[1]] = fault
            most = costs.pop(max(costs))
            for measure, value in zip(measures, (min(costs.values()), most,
                                                 settled_memory(kova.subject) - start)):
                found.put('kova', measure, value)
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
