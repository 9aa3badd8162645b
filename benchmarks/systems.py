"""The processes of a measurement: started, pinned, talked to, stopped."""

import json
import os
import pathlib
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import time

SOURCE = pathlib.Path(__file__).resolve().parent.parent
BINARIES = SOURCE / 'build/release/bin'
PEERS = SOURCE / 'build/peers'
MEASURED_CPU = 0
OTHER_CPU = 1 if (os.cpu_count() or 1) > 1 else 0


class Unable(Exception):
    """A measure cannot be taken here; the text says why and goes into the table."""


def peer(path):
    """A program of a Debian package that was unpacked, not installed; else that of the system."""
    for place in (PEERS / path, pathlib.Path('/') / path):
        if place.exists():
            return str(place)
    raise Unable(f'{path} is not there: benchmarks/peers could not fetch it')


def fifo_is_permitted():
    probe = subprocess.run(['chrt', '-f', '10', 'true'], stderr=subprocess.DEVNULL, check=False)
    return probe.returncode == 0


class Place:
    """Where processes run: one CPU, and before all others if that is permitted."""

    def __init__(self, cpu, priority):
        self.cpu = cpu
        self.priority = priority

    def enter(self):
        os.sched_setaffinity(0, {self.cpu})
        if self.priority:
            os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(self.priority))


class Program:
    """A process. Commands are lines on its input, each answered with a line of JSON."""

    def __init__(self, command, place, folder, env=None, name=None):
        self.name = name or pathlib.Path(str(command[0])).name
        self.log = folder / f'{self.name}.log'
        with open(self.log, 'ab') as log:
            self.process = subprocess.Popen(
                [str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                stderr=log, env={**os.environ, **(env or {})}, preexec_fn=place.enter,
                start_new_session=True)
        self.pid = self.process.pid

    def read(self, patience=60):
        """The next line of its output."""
        if not select.select([self.process.stdout], [], [], patience)[0]:
            raise RuntimeError(f'{self.name} says nothing: see {self.log}')
        line = self.process.stdout.readline()
        if not line:
            raise RuntimeError(f'{self.name} has ended: {self.log.read_text()[-600:]}')
        return json.loads(line)

    def tell(self, *words):
        self.process.stdin.write((' '.join(str(word) for word in words) + '\n').encode())
        self.process.stdin.flush()

    def ask(self, *words, patience=60):
        self.tell(*words)
        return self.read(patience)

    def cpu_seconds(self):
        """What all its threads have used, to the nanosecond."""
        return time.clock_gettime(((~self.pid) << 3) | 2)

    def status(self, field):
        for line in pathlib.Path(f'/proc/{self.pid}/status').read_text().splitlines():
            if line.startswith(field + ':'):
                return int(line.split()[1])
        raise RuntimeError(f'{self.name} has no {field}')

    def proportional_kib(self):
        for line in pathlib.Path(f'/proc/{self.pid}/smaps_rollup').read_text().splitlines():
            if line.startswith('Pss:'):
                return int(line.split()[1])
        raise RuntimeError('no Pss')

    def switches(self):
        """How often its threads have slept and been woken."""
        total = 0
        for status in pathlib.Path(f'/proc/{self.pid}/task').glob('*/status'):
            for line in status.read_text().splitlines():
                if line.startswith('voluntary_ctxt_switches:'):
                    total += int(line.split()[1])
        return total

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            try:
                self.process.wait(10)
            except subprocess.TimeoutExpired:
                self.process.kill()
        self.process.wait()
        for pipe in (self.process.stdin, self.process.stdout):
            pipe.close()


def wait_for(condition, what, patience=20):
    end = time.monotonic() + patience
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f'gave up waiting for {what}')
        time.sleep(0.005)


class Stack:
    """Processes in a folder of their own. The first ones are stopped last."""

    def __init__(self, place):
        self.place = place
        memory = '/dev/shm' if os.access('/dev/shm', os.W_OK) else None
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix='kova-bench.', dir=memory))
        self.programs = []
        self.env = {}

    def __enter__(self):
        try:
            self.start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_):
        for program in reversed(self.programs):
            program.stop()
        shutil.rmtree(self.folder, ignore_errors=True)

    def start(self):
        """Starts what is measured and its two ends: self.subject, self.service, self.radio."""

    def run(self, *command, place=None, env=None, name=None):
        program = Program(command, place or self.place, self.folder, {**self.env, **(env or {})},
                          name)
        self.programs.append(program)
        return program

    def start_bus(self):
        self.address = f'unix:path={self.folder}/bus'
        self.env['ZELT_BUS_ADDRESS'] = self.address
        self.bus = self.run('dbus-daemon', f'--config-file={SOURCE}/packaging/zelt-bus.conf',
                            f'--address={self.address}', '--nofork', '--nopidfile')
        wait_for((self.folder / 'bus').exists, 'the bus')

    def start_radio(self, kind, where):
        self.side = self.folder / 'side'
        self.store = self.folder / 'store'
        self.radio = self.run(BINARIES / 'bench_radio', kind, where, self.side, self.store)
        self.radio.read()

    def port(self):
        return int((self.folder / 'port').read_text())

    def start_service(self, kind, where):
        self.service = self.run(BINARIES / 'bench_service', kind, where, self.side)

    def subscribers(self, topic, connections, processes=1):
        started = [self.run(BINARIES / 'bench_service', 'subscribe', self.address, self.side, topic,
                            connections) for _ in range(processes)]
        for program in started:
            program.read()
        return started

    def dismiss(self, programs):
        for program in programs:
            program.stop()
            self.programs.remove(program)


class Kova(Stack):
    """The whole system: bus, Config, radio, Kova; link up. With `line`, over a serial line."""

    name = 'kova'

    def __init__(self, place, line=None, kova_place=None):
        super().__init__(place)
        self.line = line
        self.kova_place = kova_place or place

    def start(self):
        self.prepare()
        self.start_kova()
        if not self.line:
            self.tool('socket', 'set', '127.0.0.1', str(self.port()))
        self.tool('link', 'up')
        self.start_service('bus', self.address)

    def prepare(self):
        root = self.folder / 'root'
        for part in ('etc/zelt', 'var/lib/zelt', 'dev/shm'):
            (root / part).mkdir(parents=True)
        shutil.copy(SOURCE / 'service/config/config.toml', root / 'etc/zelt')
        (root / 'etc/zelt/target-attributes').write_text('MODEL=OTTR\n')
        (root / 'etc/zelt/version').write_text('VERSION=0.1.0\nBUILD_NUMBER=1\n')
        self.env.update(ZELT_ROOT=str(root), ZELT_LOG_LEVEL='6')
        self.start_bus()
        self.config = self.run(BINARIES / 'zelt-config')
        wait_for(lambda: self.state_of('Config') == 5, 'Config')
        if self.line:
            self.start_radio('serial', self.line[1])
        else:
            self.start_radio('link', self.folder / 'port')

    def state_of(self, service):
        answer = subprocess.run(
            ['busctl', f'--address={self.address}', 'get-property', f'zelt.service.{service}',
             '/zelt/ServiceIPC', 'zelt.ServiceIPC1', 'State'], capture_output=True, check=False)
        return int(answer.stdout.split()[1]) if answer.returncode == 0 else 0

    def start_kova(self):
        command = [BINARIES / 'kova']
        if self.line:
            command = [SOURCE / 'scripts/with-serial', self.line[0], *command]
        self.subject = self.run(*command, name='kova', place=self.kova_place)
        wait_for(lambda: self.state_of('Kova') == 5, 'Kova')

    def tool(self, *words):
        answer = subprocess.run([BINARIES / 'zeltcli', *words], capture_output=True, check=False,
                                env={**os.environ, **self.env})
        if answer.returncode != 0:
            raise RuntimeError(f'zeltcli {" ".join(words)}: {answer.stderr.decode()}')

    def set_chunk(self, size):
        self.radio.ask('transfer', size)
        self.tool('link', 'down')
        self.tool('link', 'up')


class Bridge(Stack):
    """The bare bridge between the same two ends."""

    name = 'bridge'

    def start(self):
        self.start_bus()
        self.start_radio('raw', self.folder / 'port')
        self.subject = self.run(BINARIES / 'bench_bridge', self.address, self.port())
        self.subject.read()
        self.start_service('bus', self.address)


class Mosquitto(Stack):
    """A broker in the bus's place and one, bridged to it, in Kova's: QoS 1 all the way, the service
    over a UNIX socket, the radio over TCP. With `single`, one broker that both ends talk to."""

    def __init__(self, place, single=False):
        super().__init__(place)
        self.name = 'broker' if single else 'mosquitto'

    def start(self):
        port = free_port()
        to_radio = f'listener {port} 127.0.0.1\n'
        socket_file = self.folder / 'broker'
        near = f'listener 0 {socket_file}\n'
        if self.name == 'broker':
            self.subject = self.broker('near', near + to_radio)
        else:
            middle = free_port()
            self.broker('near', near + f'listener {middle} 127.0.0.1\n')
            wait_for(lambda: answers(middle), 'mosquitto')
            self.subject = self.broker('far', to_radio + 'connection camera\n'
                                       f'address 127.0.0.1:{middle}\n'
                                       'bridge_protocol_version mqttv311\n'
                                       'notifications false\ntopic up in 1\ntopic down out 1\n')
        wait_for(socket_file.exists, 'mosquitto')
        wait_for(lambda: answers(port), 'mosquitto')
        self.start_radio('mqtt', port)
        self.start_service('mqtt', socket_file)
        wait_for(self.carries, 'the two brokers to know each other')

    def broker(self, name, listeners):
        config = self.folder / f'{name}.conf'
        config.write_text('per_listener_settings false\nallow_anonymous true\n'
                          'set_tcp_nodelay true\npersistence false\nmax_inflight_messages 0\n'
                          'max_queued_messages 0\nlog_dest stderr\nlog_type error\n'
                          + ('user root\n' if os.geteuid() == 0 else '') + listeners)
        return self.run(peer('usr/sbin/mosquitto'), '-c', config, env=peer_env(),
                        name=f'mosquitto-{name}')

    def carries(self):
        return self.service.ask('probe')['carried']


def peer_env():
    libraries = [PEERS / 'usr/lib/x86_64-linux-gnu', PEERS / 'lib/x86_64-linux-gnu']
    arch = [PEERS / 'usr/lib' / name for name in os.listdir(PEERS / 'usr/lib')
            if name.endswith('-linux-gnu')] if (PEERS / 'usr/lib').exists() else []
    return {'LD_LIBRARY_PATH': ':'.join(str(path) for path in {*libraries, *arch})}


def free_port():
    with socket.socket() as probe:
        probe.bind(('127.0.0.1', 0))
        return probe.getsockname()[1]


def answers(port):
    with socket.socket() as probe:
        return probe.connect_ex(('127.0.0.1', port)) == 0
