"""Battery against the real Kova and a simulated radio: zelt-testbed -- pytest test_battery.py"""
import os
import subprocess
import sys
from pathlib import Path

import pytest


def radio(*command):
    subprocess.run(['radiosim', 'ctl', os.environ['RADIO_CONTROL'], *command], check=True)


@pytest.fixture
def battery():
    service = Path(__file__).with_name('battery.py')
    with subprocess.Popen([sys.executable, service], stdout=subprocess.PIPE, text=True) as process:
        yield process
        process.kill()


def test_is_told_the_level_that_it_asked_for(battery):
    assert battery.stdout.readline().startswith('battery ')


def test_says_when_the_level_is_low(battery):
    battery.stdout.readline()
    for percent, said in ((15, 'battery 15 %\n'), (14, 'battery 14 %, low\n')):
        radio('notify', 'BatteryLevelBroadcast', f'{{"percent":{percent}}}')
        assert battery.stdout.readline() == said


def test_believes_nobody_but_kova(battery):
    battery.stdout.readline()
    fake = ['zeltcli', 'send', 'Battery', 'Kova.BatteryLevel', '{"percent":1}']
    assert subprocess.run(fake, check=False).returncode != 0
    radio('notify', 'BatteryLevelBroadcast', '{"percent":50}')
    assert battery.stdout.readline() == 'battery 50 %\n'
