"""The built collection under the real ansible-playbook: three local hosts, each with its own devsim."""

import glob
import json
import os
import re
import socket
import subprocess
import tarfile
import unittest

from harness import DEVUPDATE, Journey, slurp  # a scratch folder, and devsims that record what they receive

COLLECTION = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))

TIMEOUT = 300  # seconds; playbooks side by side on a busy machine
HOSTS = ("h1", "h2", "h3")
FAILURE = {"failAt": 40, "errorReason": "Flash write error"}
DEAD = "dead"  # a host whose service is down: its port is bound and nothing listens
COPY, JOB, REPORT = "Copy the firmware image to the host", "Run the job", "Report what the job would do"
RAN = {"Make the staging folder, private to this user", COPY, JOB}  # what changes on a host whose job ran
WOULD_INSTALL = "Report what installing would do"  # how check mode ends a host without the tool
FAILED_JOB = ("Stop on a failed job", "update failed on this host (devupdate exited 1): "
              "Updating {host}-panel : [" + "=" * 20 + ">" + " " * 29 + "] 40% - Flash write error")


def fleet(host, sim=None, panel="2.0.3"):
    """Per device: what devsim serves and the fact the role should record; `sim` scripts the panel's jobs."""
    acme, x100 = {"id": "acme", "name": "Acme"}, {"id": "x100", "name": "X100 Controller"}
    devices = [  # the device, its label's mode, its maker, model and version as printed ("?": not given)
        ({"name": host + "-panel", "manufacturer": acme, "product": dict(x100, version=panel), "sim": sim},
         "Normal", "Acme", "X100 Controller", panel),
        ({"name": host + "-gw", "manufacturer": {"id": "northwind", "name": "Northwind"},
          "product": {"id": "nw200", "name": "NW-200 Gateway", "version": "4.1.0", "versionString": "4.1.0 (build 5512)"}},
         "Normal", "Northwind", "NW-200 Gateway", "4.1.0 (build 5512)"),
        ({"name": host + "-dock", "manufacturer": acme, "product": x100, "isSafeModeDevice": True, "safeModeVersion": 2},
         "Safe", "Acme", "X100 Controller", "?"),
        # A comma in a value: the line cannot be split, only mode and line are filled.
        ({"name": host + "-yard", "manufacturer": {"id": "contoso", "name": "Contoso, Ltd."}, "product": {"version": "1.0"},
          "isSafeModeDevice": True, "safeModeVersion": 1}, "Failsafe", "Contoso, Ltd.", "?", "1.0"),
    ]
    facts = [dict(zip(("name", "manufacturer", "model", "version"), [None] * 4 if "," in "".join(fields) else
                      [d["name"]] + [None if f == "?" else f for f in fields]),
                  mode=mode.lower(), line=("Found[%s]:" % mode).ljust(17) + ",".join([d["name"], *fields]))
             for d, mode, *fields in devices]
    return [d for d, *_ in devices], facts


def inventory(failing="h1", **hostvars):
    """The rollout's hosts, their variables and the panel's script: `failing`'s panel fails its job."""
    return {h: (hostvars.get(h, {}), FAILURE if h == failing else {}) for h in HOSTS}


# One ansible-playbook run per table, all side by side, each with its own devsims.
# The example rollout playbook over h1, h2, h3 in that order. Per row: the hosts, extra arguments, how many times
# it runs, the last run's exit status and batches, and per host that took part what ROLES gives (a host of no batch
# gets nothing), the requests being those of every run, and then the panel's version the last run listed.
ROLLOUTS = [
    ("a second run flashes nothing", inventory(None), ["-e", "batch=3"], 2, 0, [list(HOSTS)],
     {h: (set(), None, [], [("upgrade", h + "-panel")], "2.0.0") for h in HOSTS}),
    ("check mode, one host per batch, sends nothing",
     inventory(h3={"devupdate_command": "/nonexistent/devupdate",
                   "devupdate_deb": "{{ inventory_dir | dirname }}/devupdate.deb"}),
     ["-e", "batch=1", "--check"], 1, 0, [["h1"], ["h2"], ["h3"]],
     {"h1": ({REPORT}, None, ["h1-panel"], []), "h2": ({REPORT}, None, ["h2-panel"], []),
      "h3": ({WOULD_INSTALL}, (WOULD_INSTALL, "would install devupdate from {folder}/devupdate.deb"), None, None)}),
    ("a failed job ends the rollout after its batch", inventory(), ["-e", "batch=2"], 1, 2, [["h1", "h2"]],
     {"h1": (RAN, FAILED_JOB, ["h1-panel"], [("upgrade", "h1-panel")]),
      "h2": (RAN, None, ["h2-panel"], [("upgrade", "h2-panel")])}),
]

# The role alone in one play, one host per row with its own variables (an update of fw.bin unless they say
# otherwise) and devsim (DEAD: none listens). Per row: the tasks that changed something, the task that ended the
# host and its msg, devupdate_targets (None: no listing ran), the requests its devsim received (None: nothing
# connected). Each host stages in its own folder, which PREPARED may have made beforehand.
ROLES = [
    # The gateway already reports the version the image installs: it is left out.
    ("rebooted", {"devupdate_all": True, "devupdate_reboot": True, "devupdate_image_version": "4.1.0 (build 5512)"}, {},
     (RAN, None, ["rebooted-panel"], [("upgrade", "rebooted-panel"), ("reboot", "rebooted-panel")])),
    ("listing", {"devupdate_action": "list"}, {}, (set(), None, [], [])),
    ("imageless", {"devupdate_image": ""}, {},
     (set(), ("Refuse an image the role cannot use",
              "devupdate role: devupdate_action update needs devupdate_image, the firmware image on the controller"),
      None, None)),
    ("unserved", {}, DEAD,
     (set(), ("Stop when devupdate gives no device list", "The device update service on port {port} of this host "
              "gave no device list (devupdate --list exited 1): [error] handle_connect error: Connection refused"),
      None, None)),
    ("lost", {"devupdate_image": "/nonexistent/fw.bin"}, {},
     (set(), ("Refuse an image the role cannot use", "devupdate role: /nonexistent/fw.bin is not on the controller"),
      None, None)),
    ("headless", {"devupdate_image": "{{ inventory_dir | dirname }}/devupdate.deb"}, {},
     (set(), ("Refuse an image the role cannot use", "devupdate role: the image {folder}/devupdate.deb names no "
              "version on its first line (DEVFW1 ... version=...); set devupdate_image_version, or devupdate_force to "
              "flash every device"), None, None)),
    ("wrapped", {"devupdate_command": "{{ inventory_dir | dirname }}/wrapper"}, {},
     (set(), ("Stop when devupdate gives no device list", "{folder}/wrapper is missing on this host or cannot be "
              "run (devupdate --list exited 127): {folder}/wrapper: 2: exec: /nonexistent/devupdate: not found"),
      None, None)),
    ("foreign", {}, {},
     (set(), ("Refuse a staging folder another user could reach", "devupdate role: cannot stage in "
              "{folder}/role/foreign: it belongs to another user; remove it, or set devupdate_image_dir"),
      ["foreign-panel"], [])),
    ("linked", {}, {},
     (set(), ("Refuse a staging folder another user could reach", "devupdate role: cannot stage in "
              "{folder}/role/linked: it is a link; remove it, or set devupdate_image_dir"), ["linked-panel"], [])),
]
# A staging folder someone else made first: owned by another user, or a link to a folder of the role's own user.
PREPARED = {"foreign": lambda path: (os.mkdir(path), os.chown(path, 65534, 65534)),
            "linked": lambda path: os.symlink(".", path)}


class Rollout(Journey):
    def setUp(self):
        """The collection as an operator gets it: built into a tarball, unpacked where ansible looks for it."""
        super().setUp()
        # All that ansible keeps between runs stays in the scratch folder (the remote temp is found by user, not HOME).
        self.env = dict(os.environ, HOME=self.folder, ANSIBLE_REMOTE_TEMP=self.folder + "/tmp", ANSIBLE_PIPELINING="1",
                        ANSIBLE_CONFIG=self.write("ansible.cfg", ""), ANSIBLE_STDOUT_CALLBACK="batches",
                        ANSIBLE_CALLBACK_PLUGINS=os.path.join(COLLECTION, "tests", "callbacks"))
        subprocess.run(["ansible-galaxy", "collection", "build", COLLECTION, "--output-path", self.folder],
                       env=self.env, cwd=self.folder, check=True, stdout=subprocess.DEVNULL, timeout=TIMEOUT)
        # What "ansible-galaxy collection install" does with a local tarball, without a second ansible start.
        (built,) = glob.glob(os.path.join(self.folder, "devupdate-fleet-*.tar.gz"))
        with tarfile.open(built) as tarball:
            tarball.extractall(os.path.join(self.folder, ".ansible/collections/ansible_collections/devupdate/fleet"))
        self.write("devupdate.deb", "!<arch>\n")  # a package to name, never installed; as an image it has no header
        # What an uninstall may leave on PATH: a wrapper whose program is gone.
        os.chmod(self.write("wrapper", "#!/bin/sh\nexec /nonexistent/devupdate \"$@\"\n"), 0o755)

    def start(self, table, hosts, playbook, args):
        """devsims for `hosts` (name: variables, panel's script or DEAD) and a playbook against them, left running."""
        folder = os.path.join(self.folder, table)
        os.mkdir(folder)
        for h in hosts.keys() & PREPARED.keys():
            PREPARED[h](os.path.join(folder, h))
        sims = {h: self.sim("--fleet=" + self.write(f"{table}/{h}.json", json.dumps(fleet(h, script)[0])))
                for h, (_, script) in hosts.items() if script != DEAD}
        dead = socket.socket()
        dead.bind(("127.0.0.1", 0))
        self.addCleanup(dead.close)
        ports = {h: sims[h].port if h in sims else dead.getsockname()[1] for h in hosts}
        hostvars = {h: dict(hostvars, devupdate_port=ports[h]) for h, (hostvars, _) in hosts.items()}
        # The tool is there, so the package named here must never be looked at.
        self.write(table + "/hosts.yml", json.dumps({"all": {"hosts": hostvars, "vars": {
            "ansible_connection": "local", "ansible_python_interpreter": "{{ ansible_playbook_python }}",
            "devupdate_command": DEVUPDATE, "devupdate_deb": "/nonexistent/devupdate.deb", "devupdate_action": "update",
            "devupdate_image": self.folder + "/fw.bin", "devupdate_image_dir": folder + "/{{ inventory_hostname }}"}}}))
        self.write(table + "/role.yml", "- {hosts: all, gather_facts: false, roles: [devupdate.fleet.devupdate]}\n")
        return self.play([playbook, *args], folder), folder, sims, ports

    def play(self, args, folder):
        play = subprocess.Popen(["ansible-playbook", "-i", "hosts.yml", *args], cwd=folder, env=self.env,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(play.kill)
        return play

    def results(self, started, status):
        """The batches of a finished run, once its exit status is checked."""
        out, err = started[0].communicate(timeout=TIMEOUT)
        self.assertEqual(started[0].returncode, status, err)
        return json.loads(out)

    def check_host(self, started, host, tasks, changed, ended, targets, wanted, panel="2.0.3"):
        """One host's changed tasks, the task that ended it, facts, requests and staged image against a row."""
        _, folder, sims, ports = started
        self.assertEqual({name for name, result in tasks.items() if result.get("changed")}, changed)
        ended = [(ended[0], ended[1].format(host=host, port=ports[host], folder=self.folder))] if ended else []
        self.assertEqual([(name, re.sub(r"\[[-0-9: ]+\] ", "", result["msg"])) for name, result in tasks.items()
                          if result.get("failed") or name == WOULD_INSTALL], ended)
        facts = None if targets is None else {"devupdate_devices": fleet(host, panel=panel)[1],
                                              "devupdate_targets": targets}
        self.assertEqual(tasks.get("Record the devices and those the job would serve", {}).get("ansible_facts"), facts)
        # The image is staged, where no other user can reach it, exactly when a device was to be flashed with it.
        staged = os.path.join(folder, host)
        self.assertEqual(os.path.exists(os.path.join(staged, "fw.bin")), ("upgrade", host + "-panel") in (wanted or []))
        if os.path.exists(os.path.join(staged, "fw.bin")):
            self.assertEqual([oct(os.stat(path).st_mode & 0o777) for path in (staged, staged + "/fw.bin")],
                             ["0o700", "0o600"])
        if host in sims:
            frames = sims[host].frames((targets is not None) + bool(wanted))
            self.assertEqual([(f["msg"], f.get("device")) for f in map(json.loads, frames.splitlines())], wanted or [])
            self.assertEqual(" connected from " in slurp(sims[host].log_path), wanted is not None)

    def test_role_and_rollouts(self):
        started = [self.start(str(n), hosts, "devupdate.fleet.rollout", ["-e", "image=../fw.bin", *args])
                   for n, (_, hosts, args, *_) in enumerate(ROLLOUTS)]
        roles = self.start("role", {h: (hostvars, script) for h, hostvars, script, _ in ROLES}, "role.yml", [])
        for (name, _, args, runs, status, batches, expected), run in zip(ROLLOUTS, started):
            with self.subTest(name):
                for _ in range(runs - 1):  # the same again, against the same devsims
                    self.results(run, 0)
                    run = (self.play(["devupdate.fleet.rollout", "-e", "image=../fw.bin", *args], run[1]), *run[1:])
                results = self.results(run, status)
                self.assertEqual([sorted(batch) for batch in results], batches)
                for h in HOSTS:
                    tasks = next((batch[h] for batch in results if h in batch), {})
                    self.check_host(run, h, tasks, *expected.get(h, (set(), None, None, None)))
        (results,) = self.results(roles, 2)
        for host, _, _, expected in ROLES:
            with self.subTest(host):
                self.check_host(roles, host, results[host], *expected)


if __name__ == "__main__":
    unittest.main()
