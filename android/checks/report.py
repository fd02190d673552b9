"""The differences that were found."""

errors = []


def complain(file, text):
    errors.append(f"{file}: {text}")


def compare(wanted, wanted_file, present, present_file, kind):
    """Both ways; each side is a set of values."""
    for value in sorted(wanted - present):
        complain(present_file, f"{kind} {value} of {wanted_file} is missing")
    for value in sorted(present - wanted):
        complain(present_file, f"{kind} {value} is not in {wanted_file}")
