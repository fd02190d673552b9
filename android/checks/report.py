"""The list of differences that the checks have found."""

errors = []


def complain(file, text):
    errors.append(f"{file}: {text}")


def compare(wanted, wanted_file, present, present_file, kind):
    """Reports the values that only one of the two sets has."""
    for value in sorted(wanted - present):
        complain(present_file, f"{kind} {value} of {wanted_file} is missing")
    for value in sorted(present - wanted):
        complain(present_file, f"{kind} {value} is not in {wanted_file}")
