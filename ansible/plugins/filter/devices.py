"""device_list: the devices of a `devupdate --list` run, read from its standard output."""

import re

# A device line is a label left-justified in 17 columns ("Found[Normal]:   ", the longest
# being "Found[Failsafe]: " with no padding at all), then name,manufacturer,model,version.
LABEL_WIDTH = 17
# devupdate never lists a device whose mode is unclear, so there is no "None" label.
LABEL = re.compile(r"Found\[(Normal|Failsafe|Safe)\]: *")

# The tool writes "?" for a maker, model or version the service did not give (or did not
# give as text); a real "?" cannot be told apart from that.
UNKNOWN = "?"


def _field(text):
    return None if text == UNKNOWN else text


def parse_line(line):
    """One device dict for a device line, None for any other line."""
    label = LABEL.match(line[:LABEL_WIDTH])
    if label is None or label.end() != LABEL_WIDTH:
        return None
    text = line[LABEL_WIDTH:]
    device = {"mode": label.group(1).lower(), "line": line,
              "name": None, "manufacturer": None, "model": None, "version": None}
    fields = text.split(",")
    # Nothing is quoted: with a comma inside a value there is no telling which field has it.
    if len(fields) == 4:
        device["name"] = fields[0]  # listed devices always have a name of their own
        device["manufacturer"], device["model"], device["version"] = map(_field, fields[1:])
    return device


def device_list(stdout):
    # Lines end with "\n" alone; "\r" belongs to progress bars and may sit inside a name.
    devices = (parse_line(line) for line in stdout.split("\n"))
    return [device for device in devices if device is not None]


class FilterModule:
    def filters(self):
        return {"device_list": device_list}
