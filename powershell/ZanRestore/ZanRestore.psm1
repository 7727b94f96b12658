# Restorations from PowerShell: zan_restore with pipelines, errors and progress. For Windows
# PowerShell 5.1 and PowerShell 7, on Windows and on Linux.

Set-StrictMode -Version Latest

$script:tool = $script:toolPath = $null
$script:isOnWindows = [IO.Path]::DirectorySeparatorChar -eq '\'
$script:comparer = if ($script:isOnWindows) { [StringComparer]::OrdinalIgnoreCase }
else { [StringComparer]::Ordinal } # of file names
$script:generalFailure = [Convert]::ToInt32('80004005', 16)
$script:alreadyRunning = [Convert]::ToInt32('800700aa', 16)
$script:alreadyThere = [Convert]::ToInt32('80070050', 16)
# Out of files, memory, threads or other resources: it accepts more when other files are whole.
$script:atItsLimit = '80070004', '80070008', '8007000e', '800705aa' |
    ForEach-Object { [Convert]::ToInt32($_, 16) }
$script:categories = @{ '80070005' = 'PermissionDenied'; '80070050' = 'ResourceExists'
    '80070002' = 'ObjectNotFound'; '80070003' = 'ObjectNotFound'; '80070490' = 'ObjectNotFound'
    '80070057' = 'InvalidArgument'; '800700aa' = 'ResourceBusy' }

# Of the five properties of a progress, a table shows these.
Update-TypeData -TypeName ZanRestore.Progress -Force `
    -DefaultDisplayPropertySet Path, PercentComplete, IsWhole

# The tool: in the module's folder or the one above, then on PATH.
function Find-Tool {
    # Looked up once: Get-Command takes ten times as long as the tool itself.
    if ($script:tool -and $script:toolPath -ceq $env:PATH) { return $script:tool }
    $name = if ($script:isOnWindows) { 'zan_restore.exe' } else { 'zan_restore' }
    $found = @($PSScriptRoot, (Split-Path $PSScriptRoot) | ForEach-Object { Join-Path $_ $name } |
            Where-Object { Test-Path -LiteralPath $_ -PathType Leaf })
    if (-not $found) {
        $found = @(Get-Command $name -CommandType Application -ErrorAction Ignore |
                ForEach-Object Path)
    }
    if (-not $found) {
        throw [IO.FileNotFoundException]::new(
            "$name was found neither beside the module ($PSScriptRoot) nor on PATH.", $name)
    }
    $script:toolPath = $env:PATH
    $script:tool = $found[0]
    $script:tool
}

# Joins words into a command line that every Windows program splits the same way: escapes a quote,
# the backslashes before it, and backslashes at the end of a quoted word.
function Join-Words([string[]] $Words) {
    $quoted = foreach ($word in $Words) {
        if ($word -ne '' -and $word -notmatch '[\s"]') { $word; continue }
        '"' + ($word -replace '(\\*)"', '$1$1\"' -replace '(\\+)\z', '$1$1') + '"'
    }
    $quoted -join ' '
}

# Runs the tool. Returns its status, its output (read as UTF-8, whatever the console's encoding)
# and, if it failed, the HRESULT in the output.
function Invoke-Tool([string[]] $Words) {
    $start = [Diagnostics.ProcessStartInfo]::new((Find-Tool), (Join-Words $Words))
    $start.UseShellExecute = $false
    $start.CreateNoWindow = $true
    $start.RedirectStandardOutput = $true
    $start.RedirectStandardError = $true
    $start.StandardOutputEncoding = $start.StandardErrorEncoding = [Text.UTF8Encoding]::new($false)
    $process = [Diagnostics.Process]::Start($start)
    try {
        $output = $process.StandardOutput.ReadToEndAsync()
        $errors = $process.StandardError.ReadToEndAsync()
        while (-not $process.WaitForExit(200)) { } # in steps, so that Ctrl-C works
        $text = ($output.Result + $errors.Result).Trim()
        $hresult = 0
        if ($process.ExitCode -ne 0) {
            $hresult = $script:generalFailure
            # The diagnosis' fourth line begins with the HRESULT, then names the API.
            if ($text -match '(?m)^0x([0-9a-f]{1,8})\[') {
                $hresult = [Convert]::ToInt32($Matches[1], 16)
            } elseif ($text -match '^(?:create|writing) .* failed: ([0-9a-f]{1,4})$') {
                $hresult = [Convert]::ToInt32('8007' + $Matches[1].PadLeft(4, '0'), 16)
            }
        }
        [pscustomobject]@{ Status = $process.ExitCode; Text = $text; HResult = $hresult }
    } finally {
        if (-not $process.WaitForExit(2000)) { $process.Kill() } # a set-up gets time to end
        $process.Dispose()
    }
}

# A module does not see its caller's preferences. Takes them, unless a parameter says otherwise.
function Use-CallerPreference($Cmdlet) {
    foreach ($name in 'ErrorAction', 'WhatIf', 'Confirm', 'Verbose', 'Progress') {
        $value = $Cmdlet.SessionState.PSVariable.GetValue("${name}Preference")
        $isBound = $Cmdlet.MyInvocation.BoundParameters.Keys -match "^$name(Action)?$"
        if ($null -eq $value -or $isBound) { continue }
        Set-Variable "${name}Preference" $value -Scope 1 -WhatIf:$false -Confirm:$false
    }
}

# Returns a file's full path; a relative one starts at the current location or is on a PSDrive.
# Wildcards are ordinary characters. Writes an error and returns nothing if the path is refused.
function Resolve-File([string] $Path, $Cmdlet) {
    $file = $provider = $drive = $null
    $why = if ($Path -eq '') { 'The path is empty.' }
    elseif ($Path -match '[. ]$' -and $Path -notmatch '(^|[\\/])\.{1,2}$') {
        "'$Path' ends in a dot or a space, which Windows trims: write the name without it."
    } else {
        try {
            $file = $Cmdlet.SessionState.Path.GetUnresolvedProviderPathFromPSPath(
                $Path, [ref] $provider, [ref] $drive)
            if ($provider.Name -ne 'FileSystem') { "'$Path' is not a path of the file system." }
            elseif ($script:isOnWindows -and ($file -replace '^\\\\\?\\') -match '^.{2,}:') {
                "'$Path' has a colon in its name, which begins a named stream on Windows."
            }
        } catch {
            $_.Exception.GetBaseException().Message
        }
    }
    if (-not $why) { return $file }
    Write-Refusal ([ArgumentException]::new($why)) $Path $Cmdlet
}

# Writes one non-terminating error for a file: the line of the tool's output that says what failed,
# and the HRESULT. The entire output is in the exception's data.
function Write-Failure([string] $File, [string] $Text, [int] $HResult, [string] $Id, $Cmdlet) {
    if ($Text -eq '') {
        $Text = 'zan_restore failed without output. If this was a set-up: is the backing path ' +
            'empty or too long?'
    }
    $what = @($Text -split '\r?\n' -match '^(create|writing|Cannot|no filter|message not)') + $Text
    $what = $what[0] -replace '(?<=^message not sent to port).*'
    $code = '{0:x8}' -f $HResult
    $message = "${File}: $what (0x$code)"
    $failure = [Runtime.InteropServices.ExternalException]::new($message, $HResult)
    $failure.Data['Output'] = $Text
    $category = if ($script:categories[$code]) { $script:categories[$code] } else { 'NotSpecified' }
    $Cmdlet.WriteError([Management.Automation.ErrorRecord]::new($failure, $Id, $category, $File))
}

# The same for a failure before the tool was started.
function Write-Refusal($Exception, [string] $File, $Cmdlet) {
    $Cmdlet.WriteError([Management.Automation.ErrorRecord]::new(
            $Exception, 'ZanRestore.Refused', 'InvalidArgument', $File))
}

# One bar for all files; none without a status.
function Write-Bar($Cmdlet, [string] $Status, [int] $Percent = -1) {
    $bar = [Management.Automation.ProgressRecord]::new(1, 'Restoring', "$Status ")
    $bar.PercentComplete = $Percent
    if ($Status -eq '') { $bar.RecordType = 'Completed' }
    $Cmdlet.WriteProgress($bar)
}

# Runs the tool on one file, with the words that `Words` makes of its full path, unless -WhatIf or
# the user forbids it. Returns the answer with the file's path; null if the tool did not run.
function Invoke-ToolOn([string] $Path, [string] $Deed, [scriptblock] $Words, $Cmdlet) {
    $file = Resolve-File $Path $Cmdlet
    if (-not $file -or ($Deed -and -not $Cmdlet.ShouldProcess($file, $Deed))) { return }
    try {
        Invoke-Tool (& $Words $file) | Add-Member File $file -PassThru
    } catch {
        Write-Refusal $_.Exception.GetBaseException() $Path $Cmdlet
    }
}

# Whether the file has a tag that names this backing file. The contract gives the tag's layout.
function Test-Tag([string] $File, [string] $BackingPath) {
    if (-not [IO.File]::Exists($File)) { return $false } # on Linux, its tag may be left over
    $stream = "${File}:restore_filter_tag"
    if ($script:isOnWindows) {
        $how = @{ Stream = 'restore_filter_tag'; Raw = $true; ErrorAction = 'Ignore' }
        if ($PSVersionTable.PSVersion.Major -ge 6) { $how.AsByteStream = $true }
        else { $how.Encoding = 'Byte' }
        $tag = Get-Content -LiteralPath $File @how
    } else {
        $tag = if ([IO.File]::Exists($stream)) { , [IO.File]::ReadAllBytes($stream) }
    }
    $tag = [byte[]] @($tag)
    if ($tag.Length -ne 16376) { return $false }
    $path = if ($BackingPath.IndexOf([char] ':') -eq 1) { '\??\' + $BackingPath }
    elseif ($BackingPath.StartsWith('\\', 'Ordinal')) { '\Device\Mup' + $BackingPath.Substring(1) }
    else { $BackingPath }
    $length = [BitConverter]::ToUInt16($tag, 26)
    # Not -ceq, which treats some different characters as equal.
    $length -le 16336 -and
        [string]::Equals([Text.Encoding]::Unicode.GetString($tag, 36, $length), $path, 'Ordinal')
}

# Queries the progress of a file, given by its full path. Returns null after an error, which it
# writes unless it is only to look.
function Read-Progress([string] $File, $Cmdlet, [switch] $Look) {
    try {
        $answer = Invoke-Tool '--progress', $File
    } catch {
        if (-not $Look) { Write-Refusal $_.Exception.GetBaseException() $File $Cmdlet }
        return
    }
    $form = '^progress: 0x([0-9a-f]+) of 0x([0-9a-f]+)$'
    if ($answer.Status -ne 0 -or $answer.Text -notmatch $form) {
        if ($Look) { return }
        return Write-Failure $File $answer.Text $answer.HResult 'ZanRestore.Progress' $Cmdlet
    }
    $done = [Convert]::ToUInt64($Matches[1], 16)
    $total = [Convert]::ToUInt64($Matches[2], 16)
    $isWhole = $done -eq $total -and $total -gt 0
    $percent = if ($isWhole) { 100 } elseif ($total -eq 0) { 0 }
    else { [int] [Math]::Min(99, [Math]::Floor(100.0 * $done / $total)) }
    [pscustomobject]@{
        PSTypeName = 'ZanRestore.Progress'; Path = $File; Progress = $done; Total = $total
        PercentComplete = $percent; IsWhole = $isWhole
    }
}

# Whether a file's restoration has begun. If not, writes an error.
function Test-Start([string] $File, $Answer, $Cmdlet) {
    if ($Answer.Status -eq 0) { return $true }
    # Busy: if the filter tells a progress, the file is probably being restored.
    if ($Answer.HResult -eq $script:alreadyRunning -and (Read-Progress $File $Cmdlet -Look)) {
        Write-Verbose "${File}: is being restored already, or is in use by another program"
        return $true
    }
    Write-Failure $File $Answer.Text $Answer.HResult 'ZanRestore.Start' $Cmdlet
    $false
}

function New-ZanRestore {
    <#
    .SYNOPSIS
    Sets up a restore: creates a local file, new and empty, with a tag that names its backing file.
    .DESCRIPTION
    An existing file is never touched. If it already has a tag for the same
    backing file, it is returned, so you can run a list again. Any other
    existing file is an error.

    An error of the tool says which file failed, what failed, and the HRESULT
    (0x80004005 if the tool gave no code). To see the tool's entire output:
    $Error[0].Exception.Data['Output']. The HRESULT alone is in
    $Error[0].Exception.HResult.

    To undo a set-up, run Stop-ZanRestore and Remove-Item. On Linux, if the
    file system has no named streams, remove FILE:restore_filter_tag and
    FILE:restore_filter_progress too. Write ./ there before a name with a
    colon or a tilde, which PowerShell takes for a drive or the home folder.
    .PARAMETER Path
    Local files. A relative path starts at the current location. Wildcards are
    ordinary characters.
    .PARAMETER BackingPath
    The backing file: c:\dir\foo.txt or \\server\share\foo.txt. The tag stores
    it in NT form. Nothing checks that the file exists.
    .PARAMETER ConcurrentReads
    Recorded in the tag as the strategy `simple`. 0, the default: no strategy.
    A list can have a column ConcurrentReads. The set-up starts nothing:
    Start-ZanRestore has its own ConcurrentReads.
    .INPUTS
    Objects with the properties Path, File or FullName, and BackingPath or
    Backing.
    .OUTPUTS
    System.IO.FileInfo: the file.
    .EXAMPLE
    New-ZanRestore d:\vm\disk.vhd \\srv\share\disk.vhd -ConcurrentReads 4
    .EXAMPLE
    Import-Csv list.csv | New-ZanRestore | Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore

    Sets up, starts and waits for all files of a list. Its columns are File (or
    Path, or FullName), Backing (or BackingPath) and, if you like,
    ConcurrentReads.
    #>
    [CmdletBinding(SupportsShouldProcess)]
    [OutputType([IO.FileInfo])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File', 'LiteralPath', 'PSPath')] [AllowNull()] [AllowEmptyString()]
        [string[]] $Path,
        [Parameter(Mandatory, Position = 1, ValueFromPipelineByPropertyName)]
        [Alias('Backing')] [AllowEmptyString()] [string] $BackingPath,
        [Parameter(ValueFromPipelineByPropertyName)] [int] $ConcurrentReads
    )
    begin { Use-CallerPreference $PSCmdlet }
    process {
        # 0 also when the row lacks the column
        $strategy = if ($ConcurrentReads -ne 0) { 'simple', "$ConcurrentReads" } else { @() }
        foreach ($each in @($Path)) {
            $answer = Invoke-ToolOn $each "set up to be restored from $BackingPath" {
                param($file) @($file, $BackingPath) + $strategy
            } $PSCmdlet
            if (-not $answer) { continue }
            $isThere = $answer.HResult -eq $script:alreadyThere -and
                (Test-Tag $answer.File $BackingPath)
            if ($isThere) { Write-Verbose "$($answer.File): already has its tag" }
            if ($answer.Status -eq 0 -or $isThere) { Get-Item -LiteralPath $answer.File -Force }
            else {
                Write-Failure $answer.File $answer.Text $answer.HResult 'ZanRestore.SetUp' $PSCmdlet
            }
        }
    }
}

function Start-ZanRestore {
    <#
    .SYNOPSIS
    Starts the aggressive restoration of a file that has been set up.
    .DESCRIPTION
    Like all functions that ask the filter, this needs an elevated console. It
    returns when the restoration has begun. Wait-ZanRestore waits for its end.
    A file that is already being restored is returned too. If the filter has
    reached its limit of open files, memory or other resources, the function
    tries again until the filter takes the file, and a bar shows how many files
    wait. If all other files of this call are whole or stalled and the filter
    still refuses, the function writes an error.
    .PARAMETER Path
    Local files. A relative path starts at the current location. Wildcards are
    ordinary characters.
    .PARAMETER ConcurrentReads
    The number of concurrent reads of the backing file. 4 is a good first value.
    .PARAMETER StallTimeout
    At the filter's limit: how many seconds a file may make no progress before
    the others no longer wait for it. The default is 60.
    .INPUTS
    Strings, files, and objects with the properties Path, File or FullName.
    .OUTPUTS
    System.IO.FileInfo: the file.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore
    #>
    [CmdletBinding(SupportsShouldProcess)]
    [OutputType([IO.FileInfo])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File', 'LiteralPath', 'PSPath')] [AllowNull()] [AllowEmptyString()]
        [string[]] $Path,
        [Parameter(Mandatory, Position = 1, ValueFromPipelineByPropertyName)]
        [int] $ConcurrentReads,
        [ValidateRange(1, 2147483)] [int] $StallTimeout = 60
    )
    begin {
        Use-CallerPreference $PSCmdlet
        # By file: its latest progress, and since when.
        $started = [Collections.Hashtable]::new($script:comparer)
        $refused = [Collections.Queue]::new()
        $clock = [Diagnostics.Stopwatch]::StartNew()
    }
    process {
        $words = { param($file) '--startAggressiveRestore', "$ConcurrentReads", $file }
        $deed = "start aggressive restoration with $ConcurrentReads reads"
        foreach ($each in @($Path)) {
            $answer = Invoke-ToolOn $each $deed $words $PSCmdlet
            if (-not $answer) { continue }
            if ($answer.HResult -in $script:atItsLimit) {
                $refused.Enqueue(@{ File = $answer.File; Reads = $ConcurrentReads })
            } elseif (Test-Start $answer.File $answer $PSCmdlet) {
                $started[$answer.File] = @{ Progress = -1; Since = $clock.Elapsed }
                Get-Item -LiteralPath $answer.File -Force
            }
        }
    }
    end {
        try {
            while ($refused.Count) {
                foreach ($file in @($started.Keys)) { # forgets those that are whole or stalled
                    $now = Read-Progress $file $PSCmdlet -Look
                    $known = $started[$file]
                    if ($now -and $now.Progress -ne $known.Progress) {
                        $known.Progress = $now.Progress
                        $known.Since = $clock.Elapsed
                    }
                    $isStalled = ($clock.Elapsed - $known.Since).TotalSeconds -gt $StallTimeout
                    if (-not $now -or $now.IsWhole -or $isStalled) { $started.Remove($file) }
                }
                while ($refused.Count) {
                    $next = $refused.Peek()
                    $answer = Invoke-Tool '--startAggressiveRestore', "$($next.Reads)", $next.File
                    if ($answer.HResult -in $script:atItsLimit -and $started.Count) { break }
                    [void] $refused.Dequeue()
                    if (Test-Start $next.File $answer $PSCmdlet) {
                        $started[$next.File] = @{ Progress = -1; Since = $clock.Elapsed }
                        Get-Item -LiteralPath $next.File -Force
                    }
                }
                if (-not $refused.Count) { break }
                Write-Bar $PSCmdlet "$($refused.Count) files wait until the filter takes them"
                Start-Sleep -Milliseconds 200
            }
        } finally {
            Write-Bar $PSCmdlet
        }
    }
}

function Stop-ZanRestore {
    <#
    .SYNOPSIS
    Stops the aggressive restoration of a file.
    .DESCRIPTION
    To continue the restoration, use Start-ZanRestore.
    .PARAMETER Path
    Local files. A relative path starts at the current location. Wildcards are
    ordinary characters.
    .EXAMPLE
    Stop-ZanRestore d:\vm\disk.vhd
    #>
    [CmdletBinding(SupportsShouldProcess)]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File', 'LiteralPath', 'PSPath')] [AllowNull()] [AllowEmptyString()]
        [string[]] $Path
    )
    begin { Use-CallerPreference $PSCmdlet }
    process {
        $words = { param($file) '--stopAggressiveRestore', $file }
        foreach ($each in @($Path)) {
            $answer = Invoke-ToolOn $each 'stop aggressive restoration' $words $PSCmdlet
            if ($answer -and $answer.Status -ne 0) {
                Write-Failure $answer.File $answer.Text $answer.HResult 'ZanRestore.Stop' $PSCmdlet
            }
        }
    }
}

function Test-ZanRestore {
    <#
    .SYNOPSIS
    Tests whether the restore filter serves the volume of a file.
    .DESCRIPTION
    Needs an elevated console: without one, the answer is false.
    .PARAMETER Path
    Local files. A relative path starts at the current location. Wildcards are
    ordinary characters.
    .OUTPUTS
    System.Boolean. If it is false, use -Verbose: the tool's output says why.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Where-Object { -not (Test-ZanRestore $_.FullName) }
    #>
    [CmdletBinding()]
    [OutputType([bool])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File', 'LiteralPath', 'PSPath')] [AllowNull()] [AllowEmptyString()]
        [string[]] $Path
    )
    begin { Use-CallerPreference $PSCmdlet }
    process {
        foreach ($each in @($Path)) {
            $answer = Invoke-ToolOn $each '' { param($file) '--ping', $file } $PSCmdlet
            if (-not $answer) { continue }
            Write-Verbose $answer.Text
            $answer.Status -eq 0
        }
    }
}

function Get-ZanRestoreProgress {
    <#
    .SYNOPSIS
    Gets the progress of the restoration of a file.
    .DESCRIPTION
    Progress and Total are in the filter's own unit. When they are equal and
    not 0, the restoration is finished and IsWhole is true.
    .PARAMETER Path
    Local files. A relative path starts at the current location. Wildcards are
    ordinary characters.
    .OUTPUTS
    ZanRestore.Progress: Path, PercentComplete and IsWhole, which are shown,
    and Progress and Total.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Get-ZanRestoreProgress | Where-Object { -not $_.IsWhole }
    #>
    [CmdletBinding()]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File', 'LiteralPath', 'PSPath')] [AllowNull()] [AllowEmptyString()]
        [string[]] $Path
    )
    begin { Use-CallerPreference $PSCmdlet }
    process {
        foreach ($each in @($Path)) {
            $file = Resolve-File $each $PSCmdlet
            if ($file) { Read-Progress $file $PSCmdlet }
        }
    }
}

function Wait-ZanRestore {
    <#
    .SYNOPSIS
    Waits until the restorations of files are finished, and shows their progress.
    .DESCRIPTION
    A progress bar shows all files, and the slowest one. If a file makes no
    progress for longer than StallTimeout, an error is written and the file is
    no longer waited for. Its restoration is not stopped. StallTimeout does not
    cover a filter that does not answer at all: then the function waits
    forever. In a pipeline, files that the filter does not take yet wait in
    Start-ZanRestore, which has a StallTimeout too.
    .PARAMETER Path
    Local files. A relative path starts at the current location. Wildcards are
    ordinary characters.
    .PARAMETER StallTimeout
    How many seconds a file may make no progress. The default is 60.
    .OUTPUTS
    The last known progress of each file that could be asked, in the form of
    Get-ZanRestoreProgress.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Wait-ZanRestore -StallTimeout 300
    #>
    [CmdletBinding()]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File', 'LiteralPath', 'PSPath')] [AllowNull()] [AllowEmptyString()]
        [string[]] $Path,
        [ValidateRange(1, 2147483)] [int] $StallTimeout = 60
    )
    begin {
        Use-CallerPreference $PSCmdlet
        # Of each file: the last progress, null if unknown, and when it last changed.
        $last = [Collections.Specialized.OrderedDictionary]::new($script:comparer)
        $since = [Collections.Hashtable]::new($script:comparer)
        $clock = [Diagnostics.Stopwatch]::StartNew()
    }
    process {
        foreach ($each in @($Path)) {
            $file = Resolve-File $each $PSCmdlet
            if (-not $file) { continue }
            $last[$file] = $null
            $since[$file] = $clock.Elapsed
        }
    }
    end {
        $waiting = [Collections.Generic.List[string]] @($last.Keys)
        $whole = 0
        try {
            while ($waiting.Count) {
                $began = $clock.ElapsedMilliseconds
                foreach ($file in @($waiting)) {
                    $now = Read-Progress $file $PSCmdlet
                    $before = $last[$file]
                    if ($now) { $last[$file] = $now }
                    $hasMoved = $now -and (-not $before -or $before.Progress -ne $now.Progress -or
                        $before.Total -ne $now.Total)
                    if ($hasMoved) { $since[$file] = $clock.Elapsed }
                    $idle = ($clock.Elapsed - $since[$file]).TotalSeconds
                    if ($now -and -not $now.IsWhole -and $idle -le $StallTimeout) { continue }
                    [void] $waiting.Remove($file)
                    if ($now -and $now.IsWhole) { $whole++ }
                    elseif ($now) {
                        $why = "has made no progress for $StallTimeout s; it stands at " +
                            "$($now.Progress) of $($now.Total)"
                        $code = $script:generalFailure
                        Write-Failure $file $why $code 'ZanRestore.Stalled' $PSCmdlet
                    }
                    if ($last[$file]) { $last[$file] }
                }
                if (-not $waiting.Count) { break }
                $known = @($last.Values | Where-Object { $_ })
                $slowest = $waiting | ForEach-Object { $last[$_] } | Sort-Object PercentComplete |
                    Select-Object -First 1
                $percent = ($known | Measure-Object PercentComplete -Sum).Sum / $last.Count
                Write-Bar $PSCmdlet ("$whole of $($last.Count) files finished; slowest: " +
                    "$($slowest.PercentComplete) % $($slowest.Path)") ([Math]::Min(100, $percent))
                # As long as the pass took, so that the tool runs half of the time at most.
                Start-Sleep -Milliseconds ([Math]::Max(200, $clock.ElapsedMilliseconds - $began))
            }
        } finally {
            Write-Bar $PSCmdlet
        }
    }
}

Register-ArgumentCompleter -Native -CommandName 'zan_restore', 'zan_restore.exe' -ScriptBlock {
    param($word)
    '--ping', '--startAggressiveRestore', '--stopAggressiveRestore', '--progress' |
        Where-Object { $_.StartsWith("$word", 'Ordinal') }
}
