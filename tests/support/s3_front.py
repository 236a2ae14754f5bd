"""A strict S3 front for the loopback tests: verifies signatures, keeps ACLs,
checks multipart uploads and injects faults, in front of a lenient store.

Run with Debian's interpreter (/usr/bin/python3; standard library only):

    s3_front.py --storage DIR [--min-part-size BYTES] [--lifetime SECONDS]

It starts the object store (the node package installed under
tests/support/s3/ by scripts/setup) on a free loopback port with DIR as its
storage folder, binds 127.0.0.1 on another free port itself, prints
"PORT <n>" on standard output once both accept connections, and exits,
taking the store with it, when standard input reaches its end (the parent
closed the pipe or went away) or when the lifetime is over.

Every S3 request is checked before it reaches the store:
  * a request with "Authorization: AWS4-HMAC-SHA256 ..." must carry a
    correct signature made with the test credentials (access key
    QLTTESTACCESSKEY, secret qlt-test-secret-key, region us-east-1, service
    s3) over the method, path, canonical query, every signed header and
    x-amz-content-sha256 (UNSIGNED-PAYLOAD, or the body's hex SHA-256, which
    must match the body). Every x-amz-* header sent must be signed.
    Failures answer 403 SignatureDoesNotMatch or InvalidAccessKeyId;
  * a request without Authorization is anonymous: only GET and HEAD of an
    object stored "public-read" pass, everything else gets 403 AccessDenied;
  * canned ACLs (x-amz-acl on PutObject, CreateMultipartUpload and
    PUT ?acl) are kept here; GET ?acl answers an AccessControlPolicy;
  * multipart uploads are tracked here: parts need a known upload,
    CompleteMultipartUpload refuses a part not uploaded or with another ETag
    (InvalidPart), parts out of order (InvalidPartOrder) and a part other
    than the last below the minimum part size (EntityTooSmall);
    AbortMultipartUpload answers 204 and removes the upload and its parts.

Control endpoint on the same port, unsigned, under /__front/:
  POST /__front/fault?kind=K&method=M&match=S&skip=N&count=C[&seconds=T]
       the next C requests (after skipping N) whose method is M ("*" = any)
       and whose path?query contains S (empty = any) get fault K:
       500, 503 (SlowDown), 403 (AccessDenied), drop (the connection closes
       half-way through the request body or the response), stall (no answer
       for T seconds, then the connection closes)
  POST /__front/reset            clears the faults and the request log
  GET  /__front/uploads          [{"bucket","key","uploadId"}] of open uploads
  GET  /__front/requests         [{"method","path","query","status"}] since reset
                                 (status 0: the request was dropped or stalled)
  POST /__front/bucket?name=B    creates bucket B
"""

import argparse
import ctypes
import datetime
import hashlib
import hmac
import http.client
import http.server
import json
import os
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import uuid
import xml.etree.ElementTree as ET

ACCESS_KEY = "QLTTESTACCESSKEY"
SECRET_KEY = "qlt-test-secret-key"
REGION = "us-east-1"
SERVICE = "s3"
OWNER_ID = "5a1b2c3d4e5f60718293a4b5c6d7e8f9"
OWNER_NAME = "qlt-test"
CANNED_ACLS = ("private", "public-read", "public-read-write", "authenticated-read",
               "bucket-owner-read", "bucket-owner-full-control")
MAX_SKEW_SECONDS = 15 * 60
COPY_CHUNK = 1 << 20
SPOOL_IN_MEMORY = 16 << 20
HERE = os.path.dirname(os.path.abspath(__file__))
STORE_DIR = os.path.join(HERE, "s3")

# Shared state of all request threads; every field below is guarded by _lock.
_lock = threading.Lock()
_faults = []      # dicts: kind, method, match, skip, count, seconds
_requests = []    # the request log since the last reset
_acls = {}        # (bucket, key) -> canned ACL of a stored object
_uploads = {}     # uploadId -> {"bucket", "key", "acl", "parts": {n: (etag, size)}}
# Set once at start-up, read-only afterwards.
_config = {}
_stopping = threading.Event()


class S3Failure(Exception):
    def __init__(self, status, code, message):
        Exception.__init__(self, message)
        self.status = status
        self.code = code
        self.message = message


def _error_xml(code, message, resource=""):
    rid = uuid.uuid4().hex[:16].upper()
    return ('<?xml version="1.0" encoding="UTF-8"?>\n<Error><Code>%s</Code><Message>%s</Message>'
            '<Resource>%s</Resource><RequestId>%s</RequestId><HostId>%s</HostId></Error>'
            % (code, _esc(message), _esc(resource), rid, rid)).encode()


def _esc(text):
    return text.replace("&", "&amp;").replace("<", "&lt;").replace(">", "&gt;")


def _uri_encode(text, slash_safe):
    return urllib.parse.quote(text, safe="/~" if slash_safe else "~")


def _canonical_query(raw):
    pairs = []
    if raw:
        for item in raw.split("&"):
            if not item:
                continue
            name, _, value = item.partition("=")
            name = urllib.parse.unquote(name)
            value = urllib.parse.unquote(value)
            pairs.append((_uri_encode(name, False), _uri_encode(value, False)))
    pairs.sort()
    return "&".join("%s=%s" % p for p in pairs)


def _signing_key(date):
    key = hmac.new(("AWS4" + SECRET_KEY).encode(), date.encode(), hashlib.sha256).digest()
    for part in (REGION, SERVICE, "aws4_request"):
        key = hmac.new(key, part.encode(), hashlib.sha256).digest()
    return key


def _parse_authorization(value):
    scheme, _, rest = value.partition(" ")
    if scheme != "AWS4-HMAC-SHA256":
        raise S3Failure(400, "InvalidArgument", "Unsupported Authorization Type")
    fields = {}
    for item in rest.split(","):
        name, _, val = item.strip().partition("=")
        fields[name] = val
    if not all(k in fields for k in ("Credential", "SignedHeaders", "Signature")):
        raise S3Failure(400, "AuthorizationHeaderMalformed", "The authorization header is malformed")
    return fields


def _amz_time(headers):
    stamp = headers.get("x-amz-date")
    if stamp:
        try:
            return datetime.datetime.strptime(stamp, "%Y%m%dT%H%M%SZ").replace(tzinfo=datetime.timezone.utc), stamp
        except ValueError:
            raise S3Failure(403, "AccessDenied", "AWS authentication requires a valid Date or x-amz-date header")
    raise S3Failure(403, "AccessDenied", "AWS authentication requires a valid Date or x-amz-date header")


def verify_signature(method, raw_path, raw_query, headers, authorization):
    """Checks a header signature; raises S3Failure when it does not hold.
    headers: lower-case name -> list of values. Returns the payload hash claim."""
    fields = _parse_authorization(authorization)
    scope = fields["Credential"].split("/")
    if len(scope) != 5:
        raise S3Failure(400, "AuthorizationHeaderMalformed", "The Credential is malformed")
    access_key, date, region, service, terminal = scope
    if access_key != ACCESS_KEY:
        raise S3Failure(403, "InvalidAccessKeyId",
                        "The AWS Access Key Id you provided does not exist in our records.")
    if "x-amz-security-token" in headers:
        raise S3Failure(403, "InvalidToken", "The provided token is malformed or otherwise invalid.")
    single = {k: ",".join(v) for k, v in headers.items()}
    when, stamp = _amz_time(single)
    if abs((datetime.datetime.now(datetime.timezone.utc) - when).total_seconds()) > MAX_SKEW_SECONDS:
        raise S3Failure(403, "RequestTimeTooSkewed",
                        "The difference between the request time and the current time is too large.")
    signed = fields["SignedHeaders"].split(";")
    payload = single.get("x-amz-content-sha256")
    if payload is None:
        raise S3Failure(400, "InvalidRequest", "Missing required header for this request: x-amz-content-sha256")
    for needed in ("host", "x-amz-content-sha256", "x-amz-date"):
        if needed not in signed:
            raise S3Failure(403, "SignatureDoesNotMatch", "Header %s is not signed" % needed)
    for name in headers:
        if name.startswith("x-amz-") and name not in signed:
            raise S3Failure(403, "SignatureDoesNotMatch", "Header %s is present but not signed" % name)
    canonical_headers = ""
    for name in signed:
        if name not in headers:
            raise S3Failure(403, "SignatureDoesNotMatch", "Signed header %s is missing" % name)
        values = [" ".join(v.split()) for v in headers[name]]
        canonical_headers += "%s:%s\n" % (name, ",".join(values))
    canonical = "\n".join([
        method,
        _uri_encode(urllib.parse.unquote(raw_path), True),
        _canonical_query(raw_query),
        canonical_headers,
        fields["SignedHeaders"],
        payload,
    ])
    to_sign = "\n".join([
        "AWS4-HMAC-SHA256",
        stamp,
        "/".join(scope[1:]),
        hashlib.sha256(canonical.encode()).hexdigest(),
    ])
    expected = hmac.new(_signing_key(date), to_sign.encode(), hashlib.sha256).hexdigest()
    good_scope = (date == stamp[:8] and region == REGION and service == SERVICE and terminal == "aws4_request")
    if not good_scope or not hmac.compare_digest(expected, fields["Signature"]):
        raise S3Failure(403, "SignatureDoesNotMatch",
                        "The request signature we calculated does not match the signature you provided. "
                        "Check your key and signing method.")
    return payload


def _take_fault(method, target):
    with _lock:
        for fault in _faults:
            if fault["count"] <= 0:
                continue
            if fault["method"] not in ("*", method):
                continue
            if fault["match"] and fault["match"] not in target:
                continue
            if fault["skip"] > 0:
                fault["skip"] -= 1
                continue
            fault["count"] -= 1
            return dict(fault)
    return None


def _log(method, path, query, status):
    with _lock:
        _requests.append({"method": method, "path": path, "query": query, "status": status})


class DropConnection(Exception):
    """Ends the request by closing the connection without (the rest of) an answer."""


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"
    server_version = "QltS3Front/1.0"
    upstream = None

    def log_message(self, *args):
        pass

    # --- plumbing -------------------------------------------------------

    def _split_target(self):
        target = self.path
        if "://" in target:
            target = "/" + target.split("://", 1)[1].partition("/")[2]
        path, _, query = target.partition("?")
        return path, query

    def _headers(self):
        result = {}
        for name, value in self.headers.items():
            result.setdefault(name.lower(), []).append(value)
        return result

    def _read_body(self, limit=None):
        """The request body in a spooled file (de-chunked), with its length and SHA-256.
        limit: stop after that many bytes and raise DropConnection (the drop fault)."""
        body = tempfile.SpooledTemporaryFile(max_size=SPOOL_IN_MEMORY)
        digest = hashlib.sha256()
        length = 0

        def take(n):
            nonlocal length
            while n > 0:
                if limit is not None and length >= limit:
                    raise DropConnection()
                want = min(n, COPY_CHUNK)
                if limit is not None:
                    want = min(want, max(1, limit - length))
                chunk = self.rfile.read(want)
                if not chunk:
                    raise DropConnection()
                body.write(chunk)
                digest.update(chunk)
                length += len(chunk)
                n -= len(chunk)

        if "chunked" in self.headers.get("Transfer-Encoding", "").lower():
            while True:
                line = self.rfile.readline(1024)
                if not line:
                    raise DropConnection()
                size = int(line.split(b";")[0].strip() or b"0", 16)
                if size == 0:
                    while self.rfile.readline(1024) not in (b"\r\n", b"\n", b""):
                        pass
                    break
                take(size)
                self.rfile.readline(16)
        else:
            take(int(self.headers.get("Content-Length") or 0))
        if limit is not None:
            raise DropConnection()
        body.seek(0)
        return body, length, digest.hexdigest()

    def _send(self, status, payload=b"", headers=None):
        self.send_response(status)
        for name, value in (headers or {}).items():
            self.send_header(name, value)
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        if self.command != "HEAD" and payload:
            self.wfile.write(payload)

    def _send_error(self, failure, resource):
        payload = b"" if self.command == "HEAD" else _error_xml(failure.code, failure.message, resource)
        self.send_response(failure.status)
        self.send_header("Content-Type", "application/xml")
        self.send_header("Content-Length", str(len(payload)))
        self.end_headers()
        if payload:
            self.wfile.write(payload)

    def _connect_upstream(self):
        if self.upstream is None:
            self.upstream = http.client.HTTPConnection("127.0.0.1", _config["store_port"], timeout=300)
        return self.upstream

    def _upstream(self, method, target, body=None, length=0, extra=None):
        """Sends the request to the store; returns the response (body unread)."""
        headers = {}
        for name, value in self.headers.items():
            low = name.lower()
            if low in ("authorization", "connection", "keep-alive", "transfer-encoding", "expect",
                       "content-length", "x-amz-acl", "x-amz-content-sha256", "x-amz-date",
                       "x-amz-security-token", "content-md5", "te", "proxy-connection"):
                continue
            headers[name] = value
        headers.update(extra or {})
        headers["Content-Length"] = str(length)
        for attempt in range(2):
            conn = self._connect_upstream()
            try:
                if body is not None:
                    body.seek(0)
                conn.request(method, target, body=body if length else None, headers=headers)
                return conn.getresponse()
            except (OSError, http.client.HTTPException):
                conn.close()
                self.upstream = None
                if attempt == 1:
                    raise
        return None

    def _relay(self, response, drop_half=False):
        """Sends a store response on; drop_half: only half of the body, then close."""
        data = None
        length = response.getheader("Content-Length")
        if length is None or self.command == "HEAD":
            data = response.read()
            length = len(data) if self.command != "HEAD" else int(length or 0)
        length = int(length)
        if drop_half and (self.command == "HEAD" or length == 0):
            response.read()
            raise DropConnection()
        self.send_response(response.status)
        for name, value in response.getheaders():
            if name.lower() in ("connection", "keep-alive", "transfer-encoding", "content-length", "date",
                                "server"):
                continue
            self.send_header(name, value)
        self.send_header("Content-Length", str(length))
        self.end_headers()
        if self.command == "HEAD":
            return
        send = length // 2 if drop_half else length
        if data is not None:
            self.wfile.write(data[:send])
        else:
            left = send
            while left > 0:
                chunk = response.read(min(COPY_CHUNK, left))
                if not chunk:
                    raise DropConnection()
                self.wfile.write(chunk)
                left -= len(chunk)
            if drop_half:
                self.wfile.flush()
                raise DropConnection()
            response.read()  # nothing should be left; keeps the store connection usable
        if drop_half:
            self.wfile.flush()
            raise DropConnection()

    # --- dispatch ---------------------------------------------------------

    def do_GET(self):
        self._handle()

    def do_HEAD(self):
        self._handle()

    def do_PUT(self):
        self._handle()

    def do_POST(self):
        self._handle()

    def do_DELETE(self):
        self._handle()

    def _handle(self):
        path, query = self._split_target()
        if path.startswith("/__front/"):
            self._control(path[len("/__front/"):], urllib.parse.parse_qs(query, keep_blank_values=True))
            return
        status = [0]
        original = self.send_response

        def record(code, message=None):
            status[0] = code
            original(code, message)

        self.send_response = record
        try:
            self._s3(path, query)
        except DropConnection:
            self.close_connection = True
            try:
                self.wfile.flush()
                self.connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
            status[0] = 0
        except S3Failure as failure:
            self._send_error(failure, path)
        except (OSError, http.client.HTTPException, ValueError) as problem:
            # The store went away or a request could not be read: answer as a
            # failing store does, so the client sees a 500, never a hang.
            self.close_connection = True
            try:
                self._send_error(S3Failure(500, "InternalError", "The test front failed: %s" % problem), path)
            except OSError:
                status[0] = 0
        finally:
            self.send_response = original
            _log(self.command, path, query, status[0])

    def _control(self, action, args):
        def arg(name, default=""):
            return args.get(name, [default])[0]

        if action == "fault" and self.command == "POST":
            kind = arg("kind")
            if kind not in ("500", "503", "403", "drop", "stall"):
                self._send(400, b"unknown fault kind\n")
                return
            with _lock:
                _faults.append({"kind": kind, "method": arg("method", "*") or "*", "match": arg("match"),
                                "skip": int(arg("skip", "0") or 0), "count": int(arg("count", "1") or 1),
                                "seconds": float(arg("seconds", "0") or 0)})
            self._send(200, b"ok\n")
        elif action == "reset" and self.command == "POST":
            with _lock:
                del _faults[:]
                del _requests[:]
            self._send(200, b"ok\n")
        elif action == "uploads" and self.command == "GET":
            with _lock:
                listed = [{"bucket": u["bucket"], "key": u["key"], "uploadId": i} for i, u in _uploads.items()]
            self._send(200, json.dumps(listed).encode(), {"Content-Type": "application/json"})
        elif action == "requests" and self.command == "GET":
            with _lock:
                listed = list(_requests)
            self._send(200, json.dumps(listed).encode(), {"Content-Type": "application/json"})
        elif action == "bucket" and self.command == "POST":
            name = arg("name")
            response = self._upstream("PUT", "/" + urllib.parse.quote(name))
            data = response.read()
            self._send(response.status, data if response.status != 200 else b"ok\n")
        else:
            self._send(404, b"unknown control request\n")

    # --- S3 --------------------------------------------------------------

    def _s3(self, path, query):
        method = self.command
        target = path + ("?" + query if query else "")
        params = urllib.parse.parse_qs(query, keep_blank_values=True)
        parts = urllib.parse.unquote(path).lstrip("/").split("/", 1)
        bucket = parts[0]
        key = parts[1] if len(parts) > 1 else ""
        headers = self._headers()
        authorization = self.headers.get("Authorization")
        if authorization is None and "X-Amz-Algorithm" in params:
            raise S3Failure(403, "AccessDenied", "Presigned requests are not accepted here")
        if authorization is not None:
            payload = verify_signature(method, path, query, headers, authorization)
        else:
            payload = None
            with _lock:
                acl = _acls.get((bucket, key))
            subresource = any(p in params for p in ("acl", "uploads", "uploadId", "partNumber", "tagging"))
            if method not in ("GET", "HEAD") or not key or subresource or acl not in ("public-read",
                                                                                       "public-read-write"):
                raise S3Failure(403, "AccessDenied", "Access Denied")

        fault = _take_fault(method, target)
        if fault is not None and fault["kind"] == "stall":
            _stopping.wait(fault["seconds"])
            raise DropConnection()
        has_body = method in ("PUT", "POST")
        if fault is not None and fault["kind"] == "drop" and has_body:
            length = int(self.headers.get("Content-Length") or 0)
            if length > 1:
                self._read_body(limit=length // 2)
            raise DropConnection()
        if has_body:
            body, length, digest = self._read_body()
        else:
            body, length, digest = None, 0, None
        if fault is not None and fault["kind"] in ("500", "503", "403"):
            status, code, message = {
                "500": (500, "InternalError", "We encountered an internal error. Please try again."),
                "503": (503, "SlowDown", "Please reduce your request rate."),
                "403": (403, "AccessDenied", "Access Denied"),
            }[fault["kind"]]
            raise S3Failure(status, code, message)
        if payload is not None and payload != "UNSIGNED-PAYLOAD":
            if payload.startswith("STREAMING-"):
                raise S3Failure(501, "NotImplemented", "Streaming payloads are not accepted here")
            if payload.lower() != (digest or hashlib.sha256(b"").hexdigest()):
                raise S3Failure(400, "XAmzContentSHA256Mismatch",
                                "The provided 'x-amz-content-sha256' header does not match what was computed.")
        drop = fault is not None and fault["kind"] == "drop"

        acl_header = self.headers.get("x-amz-acl")
        if acl_header is not None and acl_header not in CANNED_ACLS:
            raise S3Failure(400, "InvalidArgument", "Invalid canned ACL")

        if "acl" in params and key:
            self._object_acl(method, bucket, key, target, acl_header, drop)
            return
        if method == "POST" and "uploads" in params and key:
            self._initiate(bucket, key, target, acl_header, drop)
            return
        if "uploadId" in params and key:
            upload_id = params["uploadId"][0]
            with _lock:
                upload = _uploads.get(upload_id)
            if upload is None or upload["bucket"] != bucket or upload["key"] != key:
                raise S3Failure(404, "NoSuchUpload", "The upload does not exist. It may have been aborted or completed.")
            if method == "PUT" and "partNumber" in params:
                self._upload_part(upload_id, params["partNumber"][0], target, body, length, drop)
                return
            if method == "POST":
                self._complete(upload_id, upload, target, body, length, drop)
                return
            if method == "DELETE":
                self._abort(upload_id, upload)
                return
            raise S3Failure(405, "MethodNotAllowed", "The method is not allowed against this resource.")

        response = self._upstream(method, target, body, length)
        if response.status // 100 == 2 and key:
            with _lock:
                if method == "PUT" and "x-amz-copy-source" not in headers:
                    if acl_header in (None, "private"):
                        _acls.pop((bucket, key), None)
                    else:
                        _acls[(bucket, key)] = acl_header
                elif method == "DELETE":
                    _acls.pop((bucket, key), None)
        self._relay(response, drop)

    def _object_acl(self, method, bucket, key, target, acl_header, drop):
        head = self._upstream("HEAD", urllib.parse.quote("/%s/%s" % (bucket, key)))
        head.read()
        if head.status == 404:
            raise S3Failure(404, "NoSuchKey", "The key does not exist.")
        if method == "PUT":
            if acl_header is None:
                raise S3Failure(501, "NotImplemented", "Only canned ACLs (x-amz-acl) are accepted here")
            with _lock:
                _acls[(bucket, key)] = acl_header
            self._send(200)
            return
        if method != "GET":
            raise S3Failure(405, "MethodNotAllowed", "The method is not allowed against this resource.")
        with _lock:
            acl = _acls.get((bucket, key), "private")
        grants = ('<Grant><Grantee xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:type="CanonicalUser">'
                  '<ID>%s</ID><DisplayName>%s</DisplayName></Grantee><Permission>FULL_CONTROL</Permission></Grant>'
                  % (OWNER_ID, OWNER_NAME))
        if acl in ("public-read", "public-read-write"):
            grants += ('<Grant><Grantee xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:type="Group">'
                       '<URI>http://acs.amazonaws.com/groups/global/AllUsers</URI></Grantee>'
                       '<Permission>READ</Permission></Grant>')
        if acl == "public-read-write":
            grants += ('<Grant><Grantee xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:type="Group">'
                       '<URI>http://acs.amazonaws.com/groups/global/AllUsers</URI></Grantee>'
                       '<Permission>WRITE</Permission></Grant>')
        if acl == "authenticated-read":
            grants += ('<Grant><Grantee xmlns:xsi="http://www.w3.org/2001/XMLSchema-instance" xsi:type="Group">'
                       '<URI>http://acs.amazonaws.com/groups/global/AuthenticatedUsers</URI></Grantee>'
                       '<Permission>READ</Permission></Grant>')
        xml = ('<?xml version="1.0" encoding="UTF-8"?>\n'
               '<AccessControlPolicy xmlns="http://s3.amazonaws.com/doc/2006-03-01/">'
               '<Owner><ID>%s</ID><DisplayName>%s</DisplayName></Owner>'
               '<AccessControlList>%s</AccessControlList></AccessControlPolicy>' % (OWNER_ID, OWNER_NAME, grants))
        if drop:
            raise DropConnection()
        self._send(200, xml.encode(), {"Content-Type": "application/xml"})

    def _initiate(self, bucket, key, target, acl_header, drop):
        response = self._upstream("POST", target)
        if response.status != 200:
            self._relay(response, drop)
            return
        data = response.read()
        try:
            root = ET.fromstring(data)
            upload_id = next(e.text for e in root.iter() if e.tag.endswith("UploadId"))
        except (ET.ParseError, StopIteration):
            raise S3Failure(500, "InternalError", "The store gave no upload id")
        with _lock:
            _uploads[upload_id] = {"bucket": bucket, "key": key, "acl": acl_header, "parts": {}}
        if drop:
            raise DropConnection()
        self._send(200, data, {"Content-Type": "application/xml"})

    def _upload_part(self, upload_id, number_text, target, body, length, drop):
        try:
            number = int(number_text)
        except ValueError:
            number = 0
        if not 1 <= number <= 10000:
            raise S3Failure(400, "InvalidArgument", "Part number must be an integer between 1 and 10000, inclusive")
        response = self._upstream("PUT", target, body, length)
        if response.status == 200:
            etag = (response.getheader("ETag") or "").strip('"')
            with _lock:
                if upload_id in _uploads:
                    _uploads[upload_id]["parts"][number] = (etag, length)
        self._relay(response, drop)

    def _complete(self, upload_id, upload, target, body, length, drop):
        try:
            root = ET.fromstring(body.read() if body else b"")
        except ET.ParseError:
            raise S3Failure(400, "MalformedXML", "The XML you provided was not well-formed or did not validate "
                                                 "against our published schema.")
        listed = []
        for part in root.iter():
            if not part.tag.endswith("Part"):
                continue
            number = etag = None
            for child in part:
                if child.tag.endswith("PartNumber"):
                    number = child.text
                elif child.tag.endswith("ETag"):
                    etag = (child.text or "").replace('"', "")
            try:
                listed.append((int(number), etag))
            except (TypeError, ValueError):
                raise S3Failure(400, "MalformedXML", "A part has no valid PartNumber")
        if not listed:
            raise S3Failure(400, "MalformedXML", "The XML you provided was not well-formed or did not validate "
                                                 "against our published schema.")
        with _lock:
            uploaded = dict(upload["parts"])
        for i, (number, etag) in enumerate(listed):
            if i > 0 and number <= listed[i - 1][0]:
                raise S3Failure(400, "InvalidPartOrder", "The list of parts was not in ascending order. "
                                                         "Parts must be ordered by part number.")
        for i, (number, etag) in enumerate(listed):
            if number not in uploaded or uploaded[number][0] != etag:
                raise S3Failure(400, "InvalidPart", "One or more of the parts named could not be found. "
                                                    "The part may not have been uploaded, or the entity tag "
                                                    "given may not match the part's entity tag.")
            if i + 1 < len(listed) and uploaded[number][1] < _config["min_part_size"]:
                raise S3Failure(400, "EntityTooSmall", "Your proposed upload is smaller than the minimum "
                                                       "allowed object size.")
        response = self._upstream("POST", target, body, length)
        if response.status == 200:
            with _lock:
                _uploads.pop(upload_id, None)
                if upload["acl"] in (None, "private"):
                    _acls.pop((upload["bucket"], upload["key"]), None)
                else:
                    _acls[(upload["bucket"], upload["key"])] = upload["acl"]
        self._relay(response, drop)

    def _abort(self, upload_id, upload):
        with _lock:
            _uploads.pop(upload_id, None)
        folder = os.path.join(_config["storage"], upload["bucket"], "._S3rver_uploads", upload_id)
        shutil.rmtree(folder, ignore_errors=True)
        self._send(204)


class Server(http.server.ThreadingHTTPServer):
    daemon_threads = True
    request_queue_size = 64


def _die_with_parent():
    # The store ends with this process, however it ends.
    try:
        ctypes.CDLL("libc.so.6", use_errno=True).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG
    except OSError:
        pass


def _start_store(storage):
    script = ("const S3rver = require(%s);"
              "new S3rver({port: 0, address: '127.0.0.1', silent: true, directory: %s, vhostBuckets: false})"
              ".run().then(a => console.log('PORT ' + a.port), e => { console.error(e); process.exit(1); });"
              % (json.dumps(os.path.join(STORE_DIR, "node_modules", "s3rver")), json.dumps(storage)))
    node = shutil.which("node") or "/usr/bin/node"
    store = subprocess.Popen([node, "-e", script], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                             preexec_fn=_die_with_parent)
    line = store.stdout.readline().decode().strip()
    if not line.startswith("PORT "):
        store.kill()
        sys.stderr.write("s3_front: the object store did not start (did scripts/setup run npm ci in %s?)\n"
                         % STORE_DIR)
        sys.exit(1)
    return store, int(line[5:])


def main():
    parser = argparse.ArgumentParser(description="strict S3 front for the loopback tests")
    parser.add_argument("--storage", required=True)
    parser.add_argument("--min-part-size", type=int, default=5 << 20)
    parser.add_argument("--lifetime", type=float, default=0)
    options = parser.parse_args()
    os.makedirs(options.storage, exist_ok=True)
    store, store_port = _start_store(os.path.abspath(options.storage))
    _config.update(storage=os.path.abspath(options.storage), store_port=store_port,
                   min_part_size=options.min_part_size)
    server = Server(("127.0.0.1", 0), Handler)

    def finish():
        _stopping.set()
        store.kill()
        store.wait()
        os._exit(0)

    def watch_stdin():
        while sys.stdin.buffer.read1(4096):
            pass
        finish()

    threading.Thread(target=watch_stdin, daemon=True).start()
    if options.lifetime > 0:
        threading.Timer(options.lifetime, finish).start()
    sys.stdout.write("PORT %d\n" % server.server_address[1])
    sys.stdout.flush()
    try:
        server.serve_forever()
    finally:
        finish()


if __name__ == "__main__":
    main()
