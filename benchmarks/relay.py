"""Messages between service and radio: how long, how many, at which price."""

import contextlib

import rows
from results import Results, alternate
from systems import Bridge, Kova, Mosquitto


def relay(options, number, wanted):
    found = Results()
    with contextlib.ExitStack() as started:
        pair = [started.enter_context(kind(options.measured)) for kind in (Kova, Bridge)]
        everybody = list(pair)
        rates = [f'rate_{kind}_{size}' for kind in RATES for size in rows.BOTH_ENDS]
        for single in (False, True) if any(wanted(rate) for rate in rates) else ():
            broker = Mosquitto(options.measured, single)
            with found.part(broker.name, *rates):
                everybody.append(started.enter_context(broker))
        pair, everybody = alternate(pair, number), alternate(everybody, number)
        for stack in everybody:
            stack.service.ask('roundtrip', 32, 1, options.seconds / 4, 0)  # all caches are warm
        for size in rows.SIZES:
            for stack in pair if wanted(f'trip_{size}') else []:
                trip(found, stack, size, options)
        for stack in pair if wanted('down_p50') else []:
            one_way(found, stack, 'down_p50', 'relayed', 1, options)
        for count in (1, 5):
            for stack in pair if wanted(f'publish_{count}_p50') else []:
                subscribers = stack.subscribers(PUBLISHED, 1, count)
                one_way(found, stack, f'publish_{count}_p50', 'published', count, options)
                stack.dismiss(subscribers)
        for size in rows.BOTH_ENDS:
            for kind, run_with in RATES.items():
                measure = f'rate_{kind}_{size}'
                for stack in everybody if wanted(measure) else []:
                    with found.part(stack.name, measure):
                        run = found.checked(stack.name, run_with(stack, size, options), measure)
                        found.put(stack.name, measure, run['count'] / max(run['seconds'], 1e-9))
    return found


PUBLISHED = 'Kova.FileAccessWriteSessionEnd'
WINDOW = 32
RATES = {
    'both': lambda stack, size, options: stack.service.ask('roundtrip', size, WINDOW,
                                                           options.seconds, 0),
    'up': lambda stack, size, options: stack.service.ask('up', size, WINDOW, options.seconds),
    'down': lambda stack, size, options: stack.radio.ask('down', 'relayed', size, WINDOW,
                                                         options.seconds, 1)}


def trip(found, stack, size, options):
    """There and back, one at a time: how long, and what the process between uses for it."""
    measures = [f'trip_{size}_{what}' for what in ('p50', 'p99', 'cpu')]
    with found.part(stack.name, *measures):
        before = stack.subject.cpu_seconds()
        run = found.checked(stack.name, stack.service.ask('roundtrip', size, 1, options.seconds, 0),
                            *measures)
        used = stack.subject.cpu_seconds() - before
        for measure, value in zip(measures, (run['p50'], run['p99'],
                                             used / max(run['count'], 1) * 1e6)):
            found.put(stack.name, measure, value)


def one_way(found, stack, measure, how, receivers, options):
    with found.part(stack.name, measure):
        run = found.checked(stack.name, stack.radio.ask('down', how, 32, 1, options.seconds,
                                                        receivers), measure)
        found.put(stack.name, measure, run['p50'])
