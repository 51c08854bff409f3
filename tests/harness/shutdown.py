"""What the log of a daemon must say at its end."""

TEARDOWN = ["billing service will be quit", "start delete g_pDbusMan", " delete g_pDbusMan end", " quit ecore_main_loop end"]
# The routine once more: from main, or for a second signal. Nothing is left to delete.
AGAIN = [TEARDOWN[0], TEARDOWN[3]]
LAST = "--billing service quit!--"


def fault(process, signals):
    """What is wrong with the log of a daemon that got so many SIGTERMs; None when nothing is.

    Two that are pending together are one.
    """
    # Whose a caller is comes from the bus's thread, at any time.
    texts = [text for text in process.texts() if " is of user " not in text]
    handled = sum(text == "received SIGTERM signal 15" for text in texts)
    if not 1 <= handled <= signals:
        return f"the handler ran {handled} times"
    if process.texts("W") != TEARDOWN + AGAIN * handled:
        return f"the shutdown lines are {process.texts('W')}"
    if texts[-1] != LAST:
        return f"the last line is {texts[-1]!r}"
    return None
