"""Runs the rows of rows.py and prints one table: see docs/performance.md."""

import argparse
import datetime
import json
import os
import platform
import statistics
import subprocess
import sys
import time
import types

import process
import relay
import rows
import systems
import transfer

GROUPS = {'relay': relay.relay, 'firmware': transfer.firmware, 'line': transfer.line,
          'counts': process.counts, 'ready': process.ready, 'idle': process.idle,
          'growth': process.growth, 'simulator': transfer.simulator}
# What is not a matter of rounds is taken once.
ONCE = {'counts', 'idle', 'growth', 'simulator'}


def arguments():
    parser = argparse.ArgumentParser(
        prog='./bench', description='Measures Kova beside what it is compared with.')
    parser.add_argument('--quick', action='store_true',
                        help='one short round: does everything still run?')
    parser.add_argument('--row', action='append', default=[], metavar='NAME',
                        help='only this row or group, any number of times; see --list')
    parser.add_argument('--rounds', type=int, help='rounds, 5 unless told otherwise')
    parser.add_argument('--list', action='store_true', help='the names of all rows')
    parser.add_argument('--json', default=str(systems.SOURCE / 'build/bench.json'),
                        help='where every value of every round goes (build/bench.json)')
    return parser.parse_args()


def options_of(given):
    fifo = systems.fifo_is_permitted()
    return types.SimpleNamespace(
        fifo=fifo,
        measured=systems.Place(systems.MEASURED_CPU, 10 if fifo else 0),
        beside=systems.Place(systems.OTHER_CPU, 10 if fifo else 0),
        line=systems.Place(systems.OTHER_CPU, 20 if fifo else 0),
        rounds=given.rounds or (1 if given.quick else 5),
        # Short enough that nothing else on the machine starves for long.
        seconds=0.1 if given.quick else 0.3,
        chunks=100 if given.quick else 1000,
        simulator_chunks=100 if given.quick else 500,
        line_bytes=65_536 if given.quick else 131_072,
        starts=2 if given.quick else 8,
        settle=2 if given.quick else 5,
        idle=3 if given.quick else 10,
        shrink=100 if given.quick else 1)


def text_of(command):
    done = subprocess.run(command, cwd=systems.SOURCE, capture_output=True, text=True, check=False)
    return done.stdout.strip()


def machine(options):
    model = next((line.split(':')[1].strip() for line in open('/proc/cpuinfo', encoding='ascii')
                  if line.startswith('model name')), platform.machine())
    changed = ' with changes' if text_of(['git', 'status', '--porcelain']) else ''
    return {'commit': text_of(['git', 'rev-parse', '--short=12', 'HEAD']) + changed,
            'date': datetime.datetime.now().isoformat(timespec='seconds'),
            'processor': model, 'processors': os.cpu_count(), 'kernel': platform.release(),
            'scheduling': 'SCHED_FIFO' if options.fifo else 'normal: SCHED_FIFO is not permitted',
            'load': os.getloadavg()[0]}


def measure(wanted_rows, options):
    """{group: {'rounds': [...], 'bad': [...], 'unable': text}}"""
    measured = {}
    for group, take in GROUPS.items():
        chosen = [row for row in wanted_rows if row.group == group]
        if not chosen:
            continue

        def wanted(start):
            return any(row.measure.startswith(start) or row.against.startswith(start)
                       for row in chosen)

        found = measured[group] = {'rounds': [], 'unable': ''}
        for number in range(1 if group in ONCE else options.rounds):
            print(f'{group} {number + 1}', end=' ', flush=True, file=sys.stderr)
            try:
                found['rounds'].append(take(options, number, wanted))
            except (systems.Unable, RuntimeError, OSError, subprocess.SubprocessError) as error:
                found['unable'] = f'{type(error).__name__}: {error}'
                print(f'({found["unable"]})', file=sys.stderr)
                break
    print(file=sys.stderr)
    return measured


def values(found, who, what):
    """One value a round, None where there is no good one; and what was wrong."""
    taken = []
    wrong = ''
    for results in found['rounds']:
        bad = results.bad.get((who, what))
        wrong = bad or wrong
        taken.append(None if bad else results.get((who, what)))
    return taken, wrong


def judge(row, found):
    """The row's numbers: what Kova and the partner take, their ratio, and what to say of it."""
    kova, wrong = values(found, row.who, row.measure)
    line = {'row': row.name, 'text': row.text, 'unit': row.unit, 'partner': row.partner or '',
            'kova': kova, 'against': [], 'ratios': [], 'limit': row.limit, 'note': wrong}
    if row.partner:
        line['against'], other_wrong = values(found, row.partner, row.against)
        line['note'] = line['note'] or (f'{row.partner}: {other_wrong}' if other_wrong else '')
        line['ratios'] = [mine / other for mine, other in zip(kova, line['against'])
                          if mine is not None and other]
    judged = line['ratios'] if row.partner else [value for value in kova if value is not None]
    nothing_to_divide_by = 0 in line['against'] and kova != [None]
    if wrong:
        line['verdict'] = 'MISSES'
    elif not judged and nothing_to_divide_by:
        line['verdict'] = ''
    elif not judged:
        line['verdict'] = 'not measured'
        line['note'] = line['note'] or found['unable'] or 'no value'
    elif row.limit is None:
        line['verdict'] = ''
    else:
        middle = statistics.median(judged)
        held = middle <= row.limit[1] if row.limit[0] == '<=' else middle >= row.limit[1]
        line['verdict'] = 'holds' if held else 'MISSES'
    notes = [results.notes.get((row.who, row.measure), '') for results in found['rounds']]
    line['note'] = line['note'] or next(filter(None, notes), '')
    return line


def number_text(value):
    if value is None:
        return '-'
    if value == 0 or abs(value) >= 100:
        return f'{value:.0f}'
    return f'{value:.3g}'


def median_text(all_values):
    good = [value for value in all_values if value is not None]
    return number_text(statistics.median(good)) if good else '-'


def table(lines):
    head = ('row', 'what', 'unit', 'value', 'compared with', '', 'ratio', 'spread', 'to reach', '')
    cells = [head]
    for line in lines:
        ratios = line['ratios']
        reach = f'{line["limit"][0]} {line["limit"][1]:g}' if line['limit'] else ''
        cells.append((
            line['row'], line['text'], line['unit'], median_text(line['kova']), line['partner'],
            median_text(line['against']) if line['partner'] else '',
            f'{statistics.median(ratios):.2f}' if ratios else '',
            f'{min(ratios):.2f} to {max(ratios):.2f}' if len(ratios) > 1 else '', reach,
            ' '.join(filter(None, (line['verdict'], f'({line["note"]})' if line['note'] else '')))))
    widths = [max(len(row[column]) for row in cells) for column in range(len(head))]
    rights = {3, 5, 6}
    return '\n'.join(
        '  '.join(cell.rjust(width) if column in rights else cell.ljust(width)
                  for column, (cell, width) in enumerate(zip(row, widths))).rstrip()
        for row in cells)


def main():
    given = arguments()
    known = {row.name for row in rows.ROWS} | set(GROUPS)
    if given.list:
        for row in rows.ROWS:
            print(f'{row.group:10} {row.name:28} {row.text}')
        return 0
    unknown = set(given.row) - known
    if unknown:
        print(f'bench: no row {", ".join(sorted(unknown))}; see --list', file=sys.stderr)
        return 2
    chosen = [row for row in rows.ROWS
              if not given.row or row.name in given.row or row.group in given.row]
    options = options_of(given)
    about = machine(options)
    start = time.monotonic()
    measured = measure(chosen, options)
    lines = [judge(row, measured[row.group]) for row in chosen]
    about['seconds'] = round(time.monotonic() - start)
    about['load_after'] = os.getloadavg()[0]
    print('; '.join(f'{name} {value}' for name, value in about.items()))
    print(f'Median of {options.rounds} rounds; a ratio is taken within its round.')
    if max(about['load'], about['load_after']) > 1.5:
        print('The machine was not quiet: take no p99 from here.')
    print()
    print(table(lines))
    with open(given.json, 'w', encoding='utf-8') as file:
        json.dump({'about': about, 'rows': lines}, file, indent=1)
    return 0


if __name__ == '__main__':
    sys.exit(main())
