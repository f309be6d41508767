"""The built collection under the real ansible-playbook: three local hosts, each with its own devsim."""

import json
import os
import shutil
import subprocess
import tempfile
import unittest

from harness import Journey  # a scratch folder, and devsims that record what they receive

COLLECTION = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DEVUPDATE = os.environ.get("DEVUPDATE", "devupdate")

TIMEOUT = 120  # seconds; rows of ansible-playbook side by side on a busy machine
HOSTS = ("h1", "h2", "h3")
FAILURE = {"failAt": 40, "errorReason": "Flash write error"}


def fleet(host, sim):
    """Per device: what devsim serves and the fact the role should record; `sim` scripts the panel's jobs."""
    acme, x100 = {"id": "acme", "name": "Acme"}, {"id": "x100", "name": "X100 Controller"}
    return [
        ({"name": host + "-panel", "manufacturer": acme, "product": dict(x100, version="2.0.3"), "sim": sim},
         fact("normal", host + "-panel,Acme,X100 Controller,2.0.3", host + "-panel", "Acme", "X100 Controller", "2.0.3")),
        ({"name": host + "-gw", "manufacturer": {"id": "northwind", "name": "Northwind"},
          "product": {"id": "nw200", "name": "NW-200 Gateway", "version": "4.1.0", "versionString": "4.1.0 (build 5512)"}},
         fact("normal", host + "-gw,Northwind,NW-200 Gateway,4.1.0 (build 5512)",
              host + "-gw", "Northwind", "NW-200 Gateway", "4.1.0 (build 5512)")),
        # No version: printed as "?".
        ({"name": host + "-dock", "manufacturer": acme, "product": x100, "isSafeModeDevice": True, "safeModeVersion": 2},
         fact("safe", host + "-dock,Acme,X100 Controller,?", host + "-dock", "Acme", "X100 Controller", None)),
        # A comma in a value: the line cannot be split.
        ({"name": host + "-yard", "manufacturer": {"id": "contoso", "name": "Contoso, Ltd."}, "product": {"version": "1.0"},
          "isSafeModeDevice": True, "safeModeVersion": 1},
         fact("failsafe", host + "-yard,Contoso, Ltd.,?,1.0", None, None, None, None)),
    ]


def fact(mode, line, name, manufacturer, model, version):
    return {"mode": mode, "line": line, "name": name, "manufacturer": manufacturer, "model": model, "version": version}


def setUpModule():
    """The collection as an operator gets it: built into a tarball, installed into a private path."""
    global SCRATCH, ENV
    SCRATCH = os.path.realpath(tempfile.mkdtemp(prefix="devupdate-ansible-"))
    # Everything ansible keeps between runs stays in the scratch folder.
    ENV = dict(os.environ, HOME=SCRATCH, ANSIBLE_HOME=os.path.join(SCRATCH, "ansible"),
               ANSIBLE_LOCAL_TEMP=os.path.join(SCRATCH, "local"), ANSIBLE_REMOTE_TEMP=os.path.join(SCRATCH, "remote"),
               ANSIBLE_COLLECTIONS_PATH=os.path.join(SCRATCH, "collections"), ANSIBLE_CONFIG=os.path.join(SCRATCH, "ansible.cfg"),
               ANSIBLE_STDOUT_CALLBACK="batches", ANSIBLE_CALLBACK_PLUGINS=os.path.join(COLLECTION, "tests", "callbacks"),
               ANSIBLE_NOCOLOR="1", ANSIBLE_RETRY_FILES_ENABLED="0", ANSIBLE_PIPELINING="1")
    open(ENV["ANSIBLE_CONFIG"], "w").close()
    for args in (["build", COLLECTION, "--output-path", SCRATCH],
                 ["install", os.path.join(SCRATCH, "devupdate-fleet-1.0.0.tar.gz"), "-p", ENV["ANSIBLE_COLLECTIONS_PATH"]]):
        subprocess.run(["ansible-galaxy", "collection", *args], env=ENV, cwd=SCRATCH, check=True,
                       stdout=subprocess.DEVNULL, timeout=TIMEOUT)


def tearDownModule():
    shutil.rmtree(SCRATCH, True)


# The example rollout playbook over h1, h2, h3 in that order. Per row: extra arguments, the
# host whose first device fails its job, the batches that ran, and per host the requests
# its devsim received (nothing at all for a host that did not take part).
ROWS = [
    ("one host per batch", ["-e", "batch=1"], None, [["h1"], ["h2"], ["h3"]],
     {h: [("upgrade", h + "-panel")] for h in HOSTS}),
    ("every device, rebooted", ["-e", "batch=3", "-e", '{"devupdate_all": true, "devupdate_reboot": true}'], None,
     [list(HOSTS)], {h: [("upgrade", h + "-panel"), ("reboot", h + "-panel"),
                         ("upgrade", h + "-gw"), ("reboot", h + "-gw")] for h in HOSTS}),
    ("a failed job ends the rollout after its batch", ["-e", "batch=2"], "h1", [["h1", "h2"]],
     {"h1": [("upgrade", "h1-panel")], "h2": [("upgrade", "h2-panel")], "h3": []}),
    ("check mode sends nothing", ["-e", "batch=2", "--check"], None, [["h1", "h2"], ["h3"]],
     {h: [] for h in HOSTS}),
]


class Rollout(Journey):
    def start(self, row, args, failing):
        """Three devsims and the rollout playbook against them, in the row's own folder, left running."""
        folder = os.path.join(self.folder, row)
        os.mkdir(folder)
        fleets = {h: fleet(h, FAILURE if h == failing else {}) for h in HOSTS}
        sims = {h: self.sim("--fleet=" + self.write("%s/%s.json" % (row, h), json.dumps([d for d, _ in fleets[h]])))
                for h in HOSTS}
        self.write(row + "/fw.bin", "DEVFW1 version=2.1.0\n")
        # The tool is there, so the package named here must never be looked at.
        self.write(row + "/hosts", "[benches]\n" + "".join("%s devupdate_port=%d\n" % (h, sims[h].port) for h in HOSTS) +
                   "[benches:vars]\nansible_connection=local\nansible_python_interpreter={{ ansible_playbook_python }}\n"
                   "devupdate_command=%s\ndevupdate_deb=/nonexistent/devupdate.deb\n"
                   "devupdate_image_dir=%s/{{ inventory_hostname }}\n" % (DEVUPDATE, folder))
        with open(os.path.join(folder, "out"), "w") as out, open(os.path.join(folder, "err"), "w") as err:
            play = subprocess.Popen(["ansible-playbook", "-i", "hosts", "devupdate.fleet.rollout", "-e", "image=fw.bin",
                                     *args], cwd=folder, env=ENV, stdout=out, stderr=err)
        self.addCleanup(play.kill)
        return play, folder, sims, fleets

    def check(self, started, args, failing, batches, requests):
        play, folder, sims, fleets = started
        with open(os.path.join(folder, "out")) as out, open(os.path.join(folder, "err")) as err:
            self.assertEqual(play.wait(TIMEOUT), 2 if failing else 0, err.read())
            results = json.load(out)

        self.assertEqual([sorted(batch) for batch in results], batches)
        # Every host in a batch ran a listing; those with requests a job too.
        frames = {h: sims[h].frames((h in sum(batches, [])) + bool(requests[h])) for h in HOSTS}
        self.assertEqual({h: [(f["msg"], f.get("device")) for f in map(json.loads, frames[h].splitlines())]
                          for h in HOSTS}, requests)
        for h in sum(batches, []):
            result = next(batch[h] for batch in results if h in batch)
            self.assertEqual(result["Record the devices and those the job would serve"]["ansible_facts"]["devupdate_devices"],
                             [expected for _, expected in fleets[h]])
            job, report = result["Run the job"], result["Report what the job would do"]
            self.assertEqual((job.get("changed", False), job.get("failed", False), report.get("changed", False)),
                             (bool(requests[h]), h == failing, "--check" in args))
            if h == failing:
                self.assertIn("Flash write error", job["stdout"])
            if "--check" in args:
                self.assertEqual(report["msg"], "update would serve: %s-panel" % h)

    def test_rollouts(self):
        # The rows run side by side: each has its own devsims and folder.
        started = [self.start(str(n), args, failing) for n, (_, args, failing, *_) in enumerate(ROWS)]
        for (name, *row), row_started in zip(ROWS, started):
            with self.subTest(name):
                self.check(row_started, *row)


if __name__ == "__main__":
    unittest.main()
