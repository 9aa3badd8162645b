"""What a round of measurements found, and what all groups of them share."""

import contextlib
import random
import subprocess

from systems import Unable


class Results(dict):
    """{(who, measure): value}. `bad` says why there is no value, or why it must not be used;
    `notes` how it came about."""

    def __init__(self):
        super().__init__()
        self.bad = {}
        self.notes = {}

    def put(self, who, measure, value):
        self[who, measure] = value

    def checked(self, who, run, *measures):
        """A run of the load programs, good only if nothing was lost and the order was kept."""
        if run.get('lost') or not run.get('count', 1):
            for measure in measures:
                self.bad[who, measure] = f"lost {run['lost']:g} of {run['count'] + run['lost']:g}"
        elif not run.get('in_order', 1):
            for measure in measures:
                self.bad[who, measure] = 'out of order'
        return run

    @contextlib.contextmanager
    def part(self, who, *measures):
        """What goes wrong inside concerns these measures alone."""
        try:
            yield
        except (Unable, RuntimeError, OSError, subprocess.SubprocessError) as error:
            for measure in measures:
                self.bad[who, measure] = f'{error}'


def alternate(things, number):
    """The order turns round from round to round, so that none is always the first."""
    return list(things) if number % 2 == 0 else list(reversed(things))


def random_file(path, size):
    path.write_bytes(random.Random(size).randbytes(size))
    return path
