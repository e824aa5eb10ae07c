"""What every test on the bench starts from: chips as after boot."""

import pytest

import chips


@pytest.fixture(autouse=True)
def fresh_chips():
    for chip in chips.CHIPS:
        chip.reset()
    for converter in chips.SPI_CONVERTERS:
        converter.reset()
    for adc in chips.ADCS:
        adc.reset()
    chips.remove_triggers()
