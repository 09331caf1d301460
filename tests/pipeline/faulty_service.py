#!/usr/bin/python3
"""The embedded speech service with one fault, named by ORV_SERVICE_FAULT:
  silent          the recognition endpoint takes the audio and never answers,
                  until the client goes away;
  forget_tokens   the tokens it issues are refused by the recognition endpoint.
"""
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


if os.environ.get("ORV_SERVICE_FAULT") == "forget_tokens":
    speech_service.STATE.token_valid = lambda token: False
    speech_service.main()
else:
    speech_service.main({"/v1/recognize": route_silent})
