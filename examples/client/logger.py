#!/usr/bin/python3
"""Writes the values of registers to CSV as they change: time, name, state, values.

    logger.py USERDIR PROJECT NAME...        logger.py /home/user box.toml level setpoints

Names are those of the project's description. Runs through restarts of the service, until it is interrupted.
"""
import csv
import datetime
import sys

import voq


def main(user_directory, project, *names):
    out = csv.writer(sys.stdout)
    with voq.Port(user_directory, project=project) as port:
        port.subscribe(*names)
        for changed in port:
            reading = changed.reading
            if reading.live:
                when = datetime.datetime.fromtimestamp(reading.stamp, datetime.timezone.utc)
                out.writerow([when.isoformat(timespec="milliseconds"), changed.name, reading.state, changed.text])
                sys.stdout.flush()


if __name__ == "__main__":
    if len(sys.argv) < 4:
        sys.exit(__doc__)
    try:
        main(*sys.argv[1:])
    except KeyboardInterrupt:
        pass
    except voq.Error as error:
        sys.exit(f"logger: {error}")
