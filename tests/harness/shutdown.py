"""Checks the log of a daemon at its end."""

TEARDOWN = ["billing service will be quit", "start delete g_pDbusMan", " delete g_pDbusMan end", " quit ecore_main_loop end"]
# A second run of the teardown, from main or for a second signal, has nothing to delete.
AGAIN = [TEARDOWN[0], TEARDOWN[3]]
LAST = "--billing service quit!--"


def fault(process, signals):
    """The fault in the log of a daemon that got so many SIGTERMs; None when there is none.

    Two pending SIGTERMs count as one.
    """
    # The line with a caller's user comes from the bus's thread, at any time.
    texts = [text for text in process.texts() if " is of user " not in text]
    handled = sum(text == "received SIGTERM signal 15" for text in texts)
    if not 1 <= handled <= signals:
        return f"the handler ran {handled} times"
    if process.texts("W") != TEARDOWN + AGAIN * handled:
        return f"the shutdown lines are {process.texts('W')}"
    if texts[-1] != LAST:
        return f"the last line is {texts[-1]!r}"
    return None
