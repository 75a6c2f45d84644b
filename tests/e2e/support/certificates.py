"""Certificates for tests, made by the openssl program: an authority and what it signs."""

import os
import subprocess


def openssl(*arguments, **options):
    return subprocess.run(["openssl", *arguments], check=True, timeout=60,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, **options)


class Authority:
    """Files in `directory`, named after what they are for."""

    def __init__(self, directory, name="authority"):
        self.directory = directory
        self.key = self._path(name + ".key")
        self.certificate = self._path(name + ".pem")
        self._make_key(self.key)
        openssl("req", "-x509", "-new", "-key", self.key, "-days", "30", "-subj", f"/CN={name}",
                "-addext", "basicConstraints=critical,CA:TRUE",
                "-addext", "keyUsage=critical,keyCertSign", "-out", self.certificate)

    def issue(self, name, names="DNS:localhost,IP:127.0.0.1", usage="serverAuth", days=10):
        """The paths of a key and of its certificate. A negative number of days: expired."""
        key, request = self._path(name + ".key"), self._path(name + ".csr")
        certificate, extensions = self._path(name + ".pem"), self._path(name + ".ext")
        self._make_key(key)
        openssl("req", "-new", "-key", key, "-subj", f"/CN={name}", "-out", request)
        with open(extensions, "w", encoding="ascii") as file:
            file.write(f"subjectAltName={names}\nextendedKeyUsage={usage}\n")
        openssl("x509", "-req", "-in", request, "-CA", self.certificate, "-CAkey", self.key,
                "-CAcreateserial", "-days", str(days), "-extfile", extensions, "-out", certificate)
        return key, certificate

    def _path(self, name):
        return os.path.join(self.directory, name)

    @staticmethod
    def _make_key(path):
        openssl("genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", path)
