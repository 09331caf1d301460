#!/usr/bin/python3
"""The embedded speech service whose recognition endpoint takes the audio and
never answers, until the client goes away."""
import os
import sys

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)),
                                "..", "..", "examples", "service"))
import speech_service  # noqa: E402


def route_silent(handler, query):
    try:
        for _ in speech_service.read_chunks(handler):
            pass
        handler.rfile.read(1)  # returns when the client closes the connection
    except (EOFError, OSError, ValueError):
        pass
    handler.close_connection = True


speech_service.main({"/v1/recognize": route_silent})
