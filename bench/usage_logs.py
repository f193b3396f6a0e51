#!/usr/bin/env python3
"""Writes made-up Claude Code transcripts and Codex session logs shaped like the real ones.

usage_logs.py HOME MEGABYTES [NOW]

About four fifths of the bytes go to Claude Code ($HOME/.claude/projects/<project>/<session>.jsonl:
compact lines of 0.5 to 10 kB with message content, "usage" objects, tool results, and a request
repeated over several lines as Claude Code does for multi-part answers), the rest to Codex
($HOME/.codex/sessions/YYYY/MM/DD/rollout-*.jsonl: response items and "token_count" events, the
first of each session with a null "info"). Everything is dated within the last six days.
"""
import json
import os
import random
import sys
import time
import uuid

rng = random.Random(18)
WORDS = ("the of and to in is that for it with as was on be by this are from or at an have not "
         "function return const value error file line test build path import class self data "
         "result string number object array config server client request response token").split()
TEXT = " ".join(rng.choice(WORDS) for _ in range(400_000))


def text(size):
    start = rng.randrange(0, len(TEXT) - size - 1)
    return TEXT[start:start + size]


def stamp(moment):
    return time.strftime("%Y-%m-%dT%H:%M:%S", time.gmtime(moment)) + ".%03dZ" % rng.randrange(1000)


def dumps(value):
    return json.dumps(value, separators=(",", ":"), ensure_ascii=False)


def claude_file(path, budget, start, cwd):
    session = str(uuid.UUID(int=rng.getrandbits(128)))
    moment = start
    parent = None
    written = 0
    with open(path, "w") as out:
        while written < budget:
            moment += rng.uniform(2, 40)
            base = {"parentUuid": parent, "isSidechain": False, "userType": "external", "cwd": cwd,
                    "sessionId": session, "version": "1.0.98", "gitBranch": "main"}
            lines = []
            message_id = "msg_01" + uuid.UUID(int=rng.getrandbits(128)).hex[:22]
            request_id = "req_011C" + uuid.UUID(int=rng.getrandbits(128)).hex[:20]
            usage = {"input_tokens": rng.randrange(1, 200), "cache_creation_input_tokens": rng.randrange(0, 5000),
                     "cache_read_input_tokens": rng.randrange(0, 90000), "output_tokens": rng.randrange(1, 2000),
                     "service_tier": "standard"}
            # One answer often spans lines (text, then tool use) that repeat the same request.
            for part in range(rng.choice((1, 1, 2, 3))):
                content = ([{"type": "text", "text": text(rng.randrange(300, 4000))}] if part == 0 else
                           [{"type": "tool_use", "id": "toolu_" + uuid.UUID(int=rng.getrandbits(128)).hex[:24],
                             "name": "Bash", "input": {"command": text(rng.randrange(40, 400)),
                                                       "description": text(40)}}])
                line = dict(base, message={"id": message_id, "type": "message", "role": "assistant",
                                           "model": "claude-sonnet-4-20250514", "content": content,
                                           "stop_reason": None, "stop_sequence": None, "usage": usage},
                            requestId=request_id, type="assistant",
                            uuid=str(uuid.UUID(int=rng.getrandbits(128))), timestamp=stamp(moment))
                lines.append(dumps(line))
            result = text(rng.randrange(400, 9000))
            lines.append(dumps(dict(base, type="user", message={"role": "user", "content": [
                {"tool_use_id": "toolu_x", "type": "tool_result", "content": result, "is_error": False}]},
                uuid=str(uuid.UUID(int=rng.getrandbits(128))), timestamp=stamp(moment + 1),
                toolUseResult={"stdout": result[:2000], "stderr": "", "interrupted": False})))
            chunk = "\n".join(lines) + "\n"
            out.write(chunk)
            written += len(chunk)
            parent = session
    os.utime(path, (moment, moment))
    return written


def codex_file(path, budget, start):
    moment = start
    written = 0
    total = {"input_tokens": 0, "cached_input_tokens": 0, "output_tokens": 0, "reasoning_output_tokens": 0,
             "total_tokens": 0}
    with open(path, "w") as out:
        head = {"timestamp": stamp(moment), "type": "session_meta",
                "payload": {"id": str(uuid.uuid4()), "timestamp": stamp(moment), "cwd": "/home/me/src",
                            "originator": "codex_cli_rs", "cli_version": "0.30.0", "instructions": text(5000)}}
        first = {"timestamp": stamp(moment), "type": "event_msg",
                 "payload": {"type": "token_count", "info": None, "rate_limits": None}}
        chunk = dumps(head) + "\n" + dumps(first) + "\n"
        out.write(chunk)
        written += len(chunk)
        while written < budget:
            moment += rng.uniform(3, 60)
            lines = [
                {"timestamp": stamp(moment), "type": "response_item",
                 "payload": {"type": "message", "role": "user",
                             "content": [{"type": "input_text", "text": text(rng.randrange(100, 1500))}]}},
                {"timestamp": stamp(moment), "type": "response_item",
                 "payload": {"type": "function_call", "name": "shell",
                             "arguments": dumps({"command": ["bash", "-lc", text(200)]}), "call_id": "call_1"}},
                {"timestamp": stamp(moment), "type": "response_item",
                 "payload": {"type": "function_call_output", "call_id": "call_1",
                             "output": dumps({"output": text(rng.randrange(500, 9000)), "metadata": {"exit_code": 0}})}},
                {"timestamp": stamp(moment), "type": "response_item",
                 "payload": {"type": "message", "role": "assistant",
                             "content": [{"type": "output_text", "text": text(rng.randrange(200, 3000))}]}},
            ]
            last = {"input_tokens": rng.randrange(2000, 60000), "cached_input_tokens": rng.randrange(0, 50000),
                    "output_tokens": rng.randrange(10, 3000), "reasoning_output_tokens": rng.randrange(0, 500)}
            last["total_tokens"] = last["input_tokens"] + last["output_tokens"]
            for key in total:
                total[key] += last[key]
            lines.append({"timestamp": stamp(moment), "type": "event_msg",
                          "payload": {"type": "token_count",
                                      "info": {"total_token_usage": dict(total), "last_token_usage": last,
                                               "model_context_window": 272000},
                                      "rate_limits": {"primary": {"used_percent": 12.0, "window_minutes": 300}}}})
            chunk = "".join(dumps(line) + "\n" for line in lines)
            out.write(chunk)
            written += len(chunk)
    os.utime(path, (moment, moment))
    return written


def main():
    home = sys.argv[1]
    total = int(float(sys.argv[2]) * 1024 * 1024)
    now = float(sys.argv[3]) if len(sys.argv) > 3 else time.time()
    earliest = now - 6 * 86400
    claude_budget = total * 4 // 5
    written = 0
    project = 0
    while written < claude_budget:
        project += 1
        cwd = "/home/me/src/project-%d" % project
        folder = os.path.join(home, ".claude", "projects", cwd.replace("/", "-"))
        os.makedirs(folder, exist_ok=True)
        for _ in range(rng.randrange(2, 8)):
            if written >= claude_budget:
                break
            path = os.path.join(folder, str(uuid.UUID(int=rng.getrandbits(128))) + ".jsonl")
            written += claude_file(path, int(rng.uniform(0.2, 6) * 1024 * 1024), rng.uniform(earliest, now - 86400), cwd)
    while written < total:
        start = rng.uniform(earliest, now - 86400)
        day = time.gmtime(start)
        folder = os.path.join(home, ".codex", "sessions", "%04d" % day.tm_year, "%02d" % day.tm_mon, "%02d" % day.tm_mday)
        os.makedirs(folder, exist_ok=True)
        path = os.path.join(folder, "rollout-%s-%s.jsonl" % (time.strftime("%Y-%m-%dT%H-%M-%S", day), uuid.uuid4()))
        written += codex_file(path, int(rng.uniform(0.2, 4) * 1024 * 1024), start)


if __name__ == "__main__":
    main()
