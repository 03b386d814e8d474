"""prove-dialects real: files of Debian's packages, read and changed by the presets.

A file has its preset by where its package puts it, never by what it holds. What is changed is
judged by the model in dialectrules.py, which has to read the file as the library does."""
import collections
import os
import random
import re
import subprocess
import sys
import tarfile
import tempfile

from dialectlib import Opened, Refused, preset, preset_of
from dialectrules import Bad, Rules

PACKAGES = """
accountsservice akonadi-backend-mysql ansible-core aodh-common apparmor-utils at-spi2-core
avahi-daemon barbican-common bind9 bluez buildbot ceilometer-common chrony cinder-common
cloud-init cloudkitty-common colord cron cups-daemon debian-edu-config designate-common dnf-data
dput dput-ng fail2ban flatpak fwupd gdm3 geany-common geoclue-2.0 getmail6 git-buildpackage
glance-api glance-common gnocchi-common gnome-control-center gnome-session-common
gnome-settings-daemon-common gvfs-backends gvfs-daemons heat-common ironic-common iwd keystone
libapache2-mod-php8.2 libdnf2-common libwacom-common lightdm lightdm-gtk-greeter
lxqt-session lxqt-themes lvm2 magnum-common mailman3 manila-common mariadb-common mariadb-server
mariadb-plugin-connect mariadb-plugin-cracklib-password-check mariadb-plugin-gssapi-server
mariadb-plugin-mroonga mariadb-plugin-oqgraph mariadb-plugin-rocksdb mariadb-plugin-s3
mariadb-plugin-spider mariadb-test-data masakari-common mc mc-data mdadm mercurial-common
mistral-common modemmanager mopidy multipath-tools murano-common mysql-common network-manager
network-manager-openvpn neutron-common nfs-common nova-common octavia-common offlineimap3
openssh-server pcp php8.2-apcu php8.2-cgi php8.2-cli php8.2-common php8.2-curl php8.2-dba
php8.2-fpm php8.2-gd php8.2-imagick php8.2-imap php8.2-intl php8.2-ldap php8.2-mbstring
php8.2-memcached php8.2-mysql php8.2-opcache php8.2-redis php8.2-soap php8.2-ssh2 php8.2-tidy
php8.2-xdebug php8.2-xml php8.2-zip plymouth-themes podman polkitd postgresql-common pylint
python3-alembic python3-cinder python3-flake8 python3-keystone python3-neutron python3-nova
python3-pip python3-pytest python3-setuptools python3-sphinx radicale redis-server rtkit samba
samba-common sahara-common senlin-common smbldap-tools sssd-common supervisor swift swift-account
swift-container swift-object swift-proxy systemd systemd-container systemd-homed
systemd-journal-remote systemd-oomd systemd-resolved systemd-tests systemd-timesyncd thunar
trove-common tumbler-common tuned udev udisks2 unbound upower uwsgi-core vdirsyncer
vitrage-common watcher-common wireguard-tools xfce4-session zaqar-common
golang-github-git-lfs-git-lfs-dev
golang-github-go-git-go-git-dev golang-gopkg-ini.v1-dev
""".split()

KEYS = 3  # of a file that are changed

# Where files of a family stand; the first that fits counts.
KEYS = 3  # of a file that are changed

# Where files of a family stand; the first that fits counts.
FAMILIES = [(preset_name, re.compile(pattern)) for preset_name, pattern in (
    ("systemd-network", r"/systemd/.*\.(network|netdev|link)(\.example)?$"),
    ("systemd", r"/systemd/.*\.(service|socket|timer|target|mount|automount|path|slice|swap|scope"
                r"|nspawn)$|/systemd/.*(?<!/resolv)\.conf$"),
    ("git", r"/(\.?gitconfig|\.gitmodules)$|\.git/config$|/plumbing/.*/config$"),
    ("samba", r"/samba/(?!examples/logon).*\.conf|/smb(?!ldap)[^/]*\.conf"
              r"|/samba-common/.*/smb\.conf|/rsyncd\.conf$"),
    ("php", r"/php.*\.ini(-\w+)?$"),
    ("php", r"/php/.*/pool\.d/.*\.conf$|/php-fpm\.conf$|/php8.2-fpm/.*\.conf$"),
    ("mysql", r"/(my|mysql|mariadb|akonadi)[^/]*/.*\.cnf$|/my\.cnf$"),
    ("supervisord", r"/supervisor/.*\.conf$"),
    ("wireguard", r"/wireguard/.*\.conf$"),
    # Without any header.
    ("lax", r"/tuned/[^/]*-variables\.conf$|/tuned-main\.conf$|/uwsgi/.*\.ini$"),
    ("fail2ban", r"/fail2ban/.*\.(conf|local)$"),
    ("pylint", r"/\.?pylintrc$"),
    ("configparser", r"/(setup|ansible|dput|gbp|mailman|tox|mypy|pytest|pylintrc|osc)[^/]*"
                     r"\.(cfg|ini|cf)$|/entry_points\.txt$|/pylintrc$|/\.?pypirc$"),
    ("configparser", r"/(nova|keystone|neutron|glance|cinder|heat|designate|barbican|ironic|magnum"
                     r"|manila|octavia|trove|swift|aodh|ceilometer|cloudkitty|gnocchi|masakari"
                     r"|mistral|murano|sahara|senlin|vitrage|watcher|zaqar)[^/]*/"
                     r".*(?<!/dnsmasq-neutron)\.(conf|ini)(-sample|\.sample)?$"),
    ("configparser", r"/(alembic|logging)(\.conf|\.ini)$|/tuned/.*\.conf$|/libdnf.*\.conf$"
                     r"|/etc/dnf/dnf\.conf$|/offlineimap\.conf[.\w]*(?<!gz)$|/logprof\.conf$"
                     r"|/mopidy/.*\.conf$|/radicale/config$|/dput\.d/.*\.cf$|/etc/mailman3/"),
    ("configparser", r"/mercurial/.*\.rc$"),
    ("desktop", r"\.(desktop|directory|theme|plymouth|tablet|notifyrc|session|thumbnailer|lxqt)$"),
    ("desktop", r"/dbus-1/.*\.service$|/gvfs/mounts/.*\.mount$|/NetworkManager/.*\.(conf|name)$"),
    ("desktop", r"/geany/(filedefs|colorschemes)/|/mc/(skins/.*\.ini|mc.*keymap.*"
                r"|.*(?<!/sfs)\.ini)$"),
    ("desktop", r"/(lightdm|gdm3|bluetooth|UPower|geoclue|fwupd|tumbler|iwd|avahi|udisks2)/.*"
                r"\.(conf|rc)$|/search-provider\.ini$|/sssd/.*\.(conf|ini)$|/pklalib?/.*\.pkla$"),
)]

# Refused, and rightly so: the reason by the end of the path.
KNOWN = {
    "std_data/bug15328.cnf": "its value is a quote alone, which its owner takes as it is",
}


def family_of(path):
    return next((name for name, pattern in FAMILIES if pattern.search(path)), None)


def files_of(deb):
    """(path, bytes) of the regular files that have a family."""
    with subprocess.Popen(["dpkg-deb", "--fsys-tarfile", deb], stdout=subprocess.PIPE) as unpacked:
        with tarfile.open(fileobj=unpacked.stdout, mode="r|") as files:
            for member in files:
                path = member.name.lstrip(".")
                if member.isreg() and family_of(path):
                    yield path, files.extractfile(member).read()


class Trial:
    """One file, on which each change is made anew."""

    def __init__(self, folder, name, path, text):
        self.dialect, self.rules, self.text = preset(name), None, text
        self.rules = Rules(self.dialect)
        self.file = os.path.join(folder, os.path.basename(path))
        self.dice = random.Random(path)
        self.wrong, self.changes = [], 0

    def after(self, *change):
        """The file and its content after this change and a store."""
        with open(self.file, "wb") as out:
            out.write(self.text)
        with Opened(self.dialect, path=self.file) as opened:
            if change:
                opened.change(*change)
            opened.store()
        with open(self.file, "rb") as changed:
            text = changed.read()
        with Opened(self.dialect, path=self.file) as opened:
            content = opened.content()
        os.unlink(self.file)
        return text, content

    def run(self):
        text, content = self.after()
        parts = self.rules.parts(self.text)
        if text != self.text:
            self.wrong.append("stored otherwise")
        if content != self.rules.content(parts):
            self.wrong.append("values differ from the model's")
            return
        keys = [(stanza, key) for stanza, keys in content.items() for key in keys]
        for stanza, key in self.dice.sample(keys, min(len(keys), KEYS)):
            self.change(parts, content, stanza, key, b"made by a test")
            self.change(parts, content, stanza, key, None)
        stanzas = [stanza for stanza in content if stanza != b""]
        for stanza in self.dice.sample(stanzas, min(len(stanzas), KEYS)):
            self.change(parts, content, stanza, b"zbaseaddedkey", b"1")

    def change(self, parts, content, stanza, key, value):
        """Sets the key, or removes it, and looks at each line and value."""
        self.changes += 1
        what = "%r %r = %r: " % (stanza, key, value)
        expected = {name: dict(keys) for name, keys in content.items()}
        if value is None:
            change = ("RemoveKey", stanza, key)
            del expected[stanza][key]
        else:
            change = ("SetStringValue", stanza, key, value)
            expected[stanza][key] = [value]
        if stanza == b"" and expected[stanza] == {}:
            del expected[stanza]
        try:
            text, found = self.after(*change)
        except Refused as refused:
            self.wrong.append(what + "refused: %s" % refused)
            return
        if found != expected:
            self.wrong.append(what + "other values")
        same = self.rules.same_key(key)

        def others(of):
            """The lines that aren't this key's, and the parts that are."""
            mine = [part for part in of if part.kind == "entry" and part.stanza == stanza and
                    self.rules.same_key(part.key) == same]
            return [line for part in of if part not in mine for line in part.lines], mine

        (before, old), (after, mine) = others(parts), others(self.rules.parts(text))
        if before != after and (before[:-1] != after[:-1] or before[-1] + b"\n" != after[-1]):
            self.wrong.append(what + "other lines")
        # Ahead of the value may stand what was there and gives none: "key =", what that forgets.
        if value is not None and (mine == [] or mine[-1].value != value or len(mine[-1].lines) != 1
                                  or any(part.lines not in [each.lines for each in old]
                                         for part in mine[:-1])):
            self.wrong.append(what + "isn't one line")
        if value is None and mine:
            self.wrong.append(what + "has lines left")


def download(folder):
    """Fetches what isn't there yet; what can't be had is told, and missing."""
    def missing():
        return sorted(set(PACKAGES) - {name.partition("_")[0] for name in os.listdir(folder)})

    def fetch(*packages):
        subprocess.run(["apt-get", "download", "-qq", *packages], cwd=folder, check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    if missing():
        fetch(*missing())  # which fetches none where one isn't known
    for package in missing():
        fetch(package)
    for package in missing():
        print("no package %s here" % package)
    return sorted(os.path.join(folder, name) for name in os.listdir(folder)
                  if name.partition("_")[0] in PACKAGES)


def main(cache=None):
    counts, seen = collections.Counter(), set()
    packages, families = set(), collections.defaultdict(collections.Counter)
    with tempfile.TemporaryDirectory() as folder:
        if cache is None:
            cache = os.path.join(folder, "debs")
        os.makedirs(cache, exist_ok=True)
        place = os.path.join(folder, "files")
        os.mkdir(place)
        for deb in download(cache):
            package = os.path.basename(deb).partition("_")[0]
            for path, text in files_of(deb):
                family = family_of(path)
                own = preset_of(path)
                name = own or family
                if own not in (None, family):
                    print("%s: patterns say %s, not %s" % (path, own, family))
                    counts["other patterns"] += 1
                counts["by pattern"] += own is not None
                seen.add(path)
                packages.add(package)
                families[name]["files"] += 1
                known = next((why for end, why in KNOWN.items() if path.endswith(end)), None)
                trial = Trial(place, name, path, text)
                try:
                    trial.run()
                except (Refused, Bad) as refused:
                    families[name]["refused"] += 1
                    counts["refused"] += 1
                    if known is None:
                        counts["unknown"] += 1
                    print("%s %s (%s): %s%s" % (
                        package, path, name, refused, "; " + known if known else ""))
                counts["changes"] += trial.changes
                if trial.wrong:
                    counts["wrong"] += 1
                    print("%s %s (%s):" % (package, path, name), *trial.wrong, sep="\n  ")
    for name, family in sorted(families.items()):
        print("%-16s %5d files, %3d refused" % (name, family["files"], family["refused"]))
    total = sum(family["files"] for family in families.values())
    print("%d files of %d packages, %d by the presets' patterns; %d refused, of which %d for no "
          "known reason; %d changes; %d files read or changed otherwise than they should be" % (
              total, len(packages), counts["by pattern"], counts["refused"], counts["unknown"],
              counts["changes"], counts["wrong"]))
    return 1 if counts["unknown"] or counts["wrong"] else 0
