"""controller_file: a file on the controller, found as `copy` finds its `src`, read there before any host is
contacted. Per term one dict: `path` (absolute, None when not found), `version` (from a firmware image's
"DEVFW1 ... version=..." first line, None without one) and `error` (why it cannot be used, None when it can)."""

from ansible.plugins.lookup import LookupBase

# Only the first line counts, and only its beginning is read: images can be large and need not have one.
HEAD = 512
MAGIC = b"DEVFW1"


def image_version(head):
    """The version a firmware image's header names, None when it names none."""
    words = head.split(b"\n", 1)[0].split()  # ASCII blanks, "\r" included
    if not words or words[0] != MAGIC:
        return None
    fields = dict(word.split(b"=", 1) for word in words[1:] if b"=" in word)
    return fields.get(b"version", b"").decode("utf-8", "replace") or None


class LookupModule(LookupBase):
    def run(self, terms, variables=None, **kwargs):
        return [self.examine(term, variables or {}) for term in terms]

    def examine(self, term, variables):
        path = self.find_file_in_search_path(variables, "files", term, ignore_missing=True)
        if path is None:
            return {"path": None, "version": None, "error": "%s is not on the controller" % term}
        try:
            with open(path, "rb") as f:
                head = f.read(HEAD)
        except OSError as e:
            return {"path": path, "version": None, "error": "%s cannot be read on the controller: %s" % (path, e.strerror)}
        return {"path": path, "version": image_version(head), "error": None}
