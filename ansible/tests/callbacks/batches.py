"""Writes one JSON list when the run ends: per batch, per host, per task name, the result (skipped ones left out)."""

import json

from ansible.plugins.callback import CallbackBase


class CallbackModule(CallbackBase):
    CALLBACK_VERSION = 2.0
    CALLBACK_TYPE = "stdout"
    CALLBACK_NAME = "batches"

    def __init__(self):
        super().__init__()
        self.batches = []

    def v2_playbook_on_play_start(self, play):  # once per serial batch
        self.batches.append({})

    def keep(self, result, **outcome):
        host = self.batches[-1].setdefault(result._host.get_name(), {})
        host[result._task.name] = dict(result._result, **outcome)

    def v2_runner_on_ok(self, result):
        self.keep(result)

    def v2_runner_on_failed(self, result, ignore_errors=False):  # callbacks get results without "failed"
        self.keep(result, failed=True)

    def v2_playbook_on_stats(self, stats):
        self._display.display(json.dumps(self.batches, default=str))
