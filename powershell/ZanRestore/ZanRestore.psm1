# Restorations from PowerShell: zan_restore with pipelines, errors and progress. For Windows
# PowerShell 5.1 and PowerShell 7, on Windows and on Linux.

Set-StrictMode -Version Latest

$script:tool = $script:toolPath = $null
$script:isOnWindows = [IO.Path]::DirectorySeparatorChar -eq '\'
$script:generalFailure = [Convert]::ToInt32('80004005', 16)
$script:alreadyRunning = [Convert]::ToInt32('800700aa', 16)
$script:alreadyThere = [Convert]::ToInt32('80070050', 16)
# Out of files, memory or threads: the filter takes more when other files are whole.
$script:atItsLimit = '80070004', '80070008', '8007000e' | ForEach-Object { [Convert]::ToInt32($_, 16) }

# The tool: beside the module, that is in its folder or the one above, then in the path.
function Find-Tool {
    # Looked up once: Get-Command takes ten times as long as the tool itself.
    if ($script:tool -and $script:toolPath -ceq $env:PATH) { return $script:tool }
    $name = if ($script:isOnWindows) { 'zan_restore.exe' } else { 'zan_restore' }
    $found = @($PSScriptRoot, (Split-Path $PSScriptRoot) | ForEach-Object { Join-Path $_ $name } |
            Where-Object { Test-Path -LiteralPath $_ -PathType Leaf })
    if (-not $found) { $found = @(Get-Command -Name $name -CommandType Application -ErrorAction Ignore | ForEach-Object Path) }
    if (-not $found) {
        throw [IO.FileNotFoundException]::new(
            "$name was found neither beside the module ($PSScriptRoot) nor in the path.", $name)
    }
    $script:toolPath = $env:PATH
    $script:tool = $found[0]
    $script:tool
}

# One command line out of many words, as every Windows program takes it apart: a quote inside
# a word and the backslashes before it, or at the end of a quoted word, are escaped.
function Join-Words([string[]] $Words) {
    $quoted = foreach ($word in $Words) {
        if ($word -ne '' -and $word -notmatch '[\s"]') { $word; continue }
        '"' + ($word -replace '(\\*)"', '$1$1\"' -replace '(\\+)\z', '$1$1') + '"'
    }
    $quoted -join ' '
}

# Runs the tool: its status, what it printed (read as UTF-8, whatever the console's encoding)
# and, when it failed, the HRESULT in that.
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
        while (-not $process.WaitForExit(200)) { } # in steps, so that Ctrl-C comes through
        $text = ($output.Result + $errors.Result).Trim()
        $hresult = 0
        if ($process.ExitCode -ne 0) {
            $hresult = $script:generalFailure
            # The diagnosis' fourth line begins with the HRESULT, and the function follows.
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

# The whole path of a file, made from the current location or a PSDrive; wildcards are
# ordinary characters.
function Resolve-File([string] $Path, $Cmdlet) {
    if ($Path -match '[. ]$' -and $Path -notmatch '(^|[\\/])\.{1,2}$') {
        throw [ArgumentException]::new(
            "'$Path' ends in a dot or a blank, which Windows trims: write the name without it.")
    }
    $provider = $drive = $null
    $file = $Cmdlet.SessionState.Path.GetUnresolvedProviderPathFromPSPath($Path, [ref] $provider, [ref] $drive)
    if ($provider.Name -ne 'FileSystem') { throw [ArgumentException]::new("'$Path' is not a path of the file system.") }
    if ($script:isOnWindows -and ($file -replace '^\\\\\?\\', '').LastIndexOf([char] ':') -gt 1) {
        throw [ArgumentException]::new("'$Path' has a colon in its name, which begins a named stream on Windows.")
    }
    $file
}

# One non-terminating error for a file: the tool's own lines, and their HRESULT.
function Write-Failure([string] $File, [string] $Text, [int] $HResult, [string] $Id, $Cmdlet) {
    if ($Text -eq '') { $Text = 'zan_restore failed without a word: is the backing path empty or too long?' }
    $failure = [Runtime.InteropServices.ExternalException]::new("${File}: $Text", $HResult)
    $Cmdlet.WriteError([Management.Automation.ErrorRecord]::new($failure, $Id, 'NotSpecified', $File))
}

# The same for what went wrong before the tool was asked.
function Write-Refusal($Reason, [string] $File, $Cmdlet) {
    $Cmdlet.WriteError([Management.Automation.ErrorRecord]::new(
            $Reason.Exception, 'ZanRestore.Refused', 'InvalidArgument', $File))
}

# Runs the tool on one file, with the words that `Words` makes of its whole path, unless -WhatIf
# or the user forbids the deed. The answer with the file's path; null when the tool did not run.
function Invoke-ToolOn([string] $Path, [string] $Deed, [scriptblock] $Words, $Cmdlet) {
    try {
        $file = Resolve-File $Path $Cmdlet
        if ($Deed -and -not $Cmdlet.ShouldProcess($file, $Deed)) { return }
        Invoke-Tool (& $Words $file) | Add-Member File $file -PassThru
    } catch {
        Write-Refusal $_ $Path $Cmdlet
    }
}

# Whether the file has a tag that names this backing file; the tag's layout is the filter's
# contract.
function Test-Tag([string] $File, [string] $BackingPath) {
    $stream = "${File}:restore_filter_tag"
    if ($script:isOnWindows) {
        $asBytes = @{ Encoding = 'Byte' }
        if ($PSVersionTable.PSVersion.Major -ge 6) { $asBytes = @{ AsByteStream = $true } }
        $tag = Get-Content -LiteralPath $File -Stream restore_filter_tag -Raw -ErrorAction Ignore @asBytes
    } else {
        $tag = if ([IO.File]::Exists($stream)) { , [IO.File]::ReadAllBytes($stream) }
    }
    $tag = [byte[]] @($tag)
    if ($tag.Length -ne 16376) { return $false }
    $path = if ($BackingPath.IndexOf([char] ':') -eq 1) { '\??\' + $BackingPath }
    elseif ($BackingPath.StartsWith('\\', 'Ordinal')) { '\Device\Mup' + $BackingPath.Substring(1) }
    else { $BackingPath }
    $length = [BitConverter]::ToUInt16($tag, 26)
    # Not -ceq, for which some characters that differ are the same.
    $length -le 16336 -and [string]::Equals([Text.Encoding]::Unicode.GetString($tag, 36, $length), $path, 'Ordinal')
}

# Asks for the progress of a file, given by its whole path; null after an error.
function Read-Progress([string] $File, $Cmdlet) {
    $answer = Invoke-Tool '--progress', $File
    if ($answer.Status -ne 0 -or $answer.Text -notmatch '^progress: 0x([0-9a-f]+) of 0x([0-9a-f]+)$') {
        Write-Failure $File $answer.Text $answer.HResult 'ZanRestore.Progress' $Cmdlet
        return
    }
    $done = [Convert]::ToUInt64($Matches[1], 16)
    $total = [Convert]::ToUInt64($Matches[2], 16)
    $isWhole = $done -eq $total -and $total -gt 0
    $percent = 0
    if ($isWhole) { $percent = 100 }
    elseif ($total -gt 0) { $percent = [int] [Math]::Min(99, [Math]::Floor(100.0 * $done / $total)) }
    [pscustomobject]@{
        PSTypeName = 'ZanRestore.Progress'
        Path = $File; Progress = $done; Total = $total; PercentComplete = $percent; IsWhole = $isWhole
    }
}

# Passes a file on whose restoration has begun, and is true; otherwise writes the failure.
function Write-Start([string] $File, $Answer, $Cmdlet) {
    $isRunning = $Answer.Status -ne 0 -and $Answer.HResult -eq $script:alreadyRunning
    if ($isRunning) { Write-Verbose "${File}: is being restored already" }
    if ($Answer.Status -ne 0 -and -not $isRunning) {
        Write-Failure $File $Answer.Text $Answer.HResult 'ZanRestore.Start' $Cmdlet
        return $false
    }
    $Cmdlet.WriteObject((Get-Item -LiteralPath $File -Force))
    $true
}

# Whether a file is neither whole nor has failed.
function Test-Running([string] $File) {
    $answer = Invoke-Tool '--progress', $File
    $answer.Status -eq 0 -and $answer.Text -notmatch '^progress: 0x(?!0 )([0-9a-f]+) of 0x\1$'
}

function New-ZanRestore {
    <#
    .SYNOPSIS
    Sets a restore up: creates a local file, new and empty, with a tag that names its backing file.
    .DESCRIPTION
    A file that exists is never touched. One that already has a tag for the same backing file is
    passed on, so that a list can be run again; any other is an error.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .PARAMETER BackingPath
    The backing data file: c:\dir\foo.txt or \\server\share\foo.txt. It is stored as it is given;
    nothing checks that it exists.
    .PARAMETER ConcurrentReads
    Unless it is 0, the tag records that the whole file is to be restored, with this many
    concurrent backing reads. It starts nothing: see Start-ZanRestore. In a list it can be a third
    column, ConcurrentReads.
    .OUTPUTS
    System.IO.FileInfo: the file.
    .EXAMPLE
    New-ZanRestore d:\vm\disk.vhd \\srv\share\disk.vhd -ConcurrentReads 4
    .EXAMPLE
    Import-Csv list.csv | New-ZanRestore | Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore

    Sets up, starts and waits for all files of a list with the columns File and Backing.
    #>
    [CmdletBinding(SupportsShouldProcess)]
    [OutputType([IO.FileInfo])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path,
        [Parameter(Mandatory, Position = 1, ValueFromPipelineByPropertyName)]
        [Alias('Backing')] [AllowEmptyString()] [string] $BackingPath,
        [Parameter(ValueFromPipelineByPropertyName)] [int] $ConcurrentReads
    )
    process {
        # 0 also when the row lacks the column
        $strategy = if ($ConcurrentReads -ne 0) { 'simple', "$ConcurrentReads" } else { @() }
        $answer = Invoke-ToolOn $Path "set up to be restored from $BackingPath" {
            param($file) @($file, $BackingPath) + $strategy
        } $PSCmdlet
        if (-not $answer) { return }
        $isThere = $answer.Status -ne 0 -and $answer.HResult -eq $script:alreadyThere -and (Test-Tag $answer.File $BackingPath)
        if ($isThere) { Write-Verbose "$($answer.File): has its tag already" }
        if ($answer.Status -eq 0 -or $isThere) {
            Get-Item -LiteralPath $answer.File -Force
        } else {
            Write-Failure $answer.File $answer.Text $answer.HResult 'ZanRestore.SetUp' $PSCmdlet
        }
    }
}

function Start-ZanRestore {
    <#
    .SYNOPSIS
    Starts the aggressive restoration of a file that has been set up.
    .DESCRIPTION
    Returns when the restoration has begun; Wait-ZanRestore waits for its end. A file that is
    being restored already is passed on. One that a filter refuses because it is out of files,
    memory or threads is started when others are whole.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .PARAMETER ConcurrentReads
    The number of concurrent reads of the backing file; 4 is a fair start.
    .OUTPUTS
    System.IO.FileInfo: the file.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Start-ZanRestore -ConcurrentReads 4 | Wait-ZanRestore
    #>
    [CmdletBinding(SupportsShouldProcess)]
    [OutputType([IO.FileInfo])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path,
        [Parameter(Mandatory, Position = 1, ValueFromPipelineByPropertyName)] [int] $ConcurrentReads
    )
    begin {
        $started = @()
        $refused = [Collections.Queue]::new()
    }
    process {
        $words = { param($file) '--startAggressiveRestore', "$ConcurrentReads", $file }
        $answer = Invoke-ToolOn $Path "start aggressive restoration with $ConcurrentReads reads" $words $PSCmdlet
        if (-not $answer) { return }
        if ($answer.HResult -in $script:atItsLimit) {
            $refused.Enqueue(@{ File = $answer.File; Reads = $ConcurrentReads })
        } elseif (Write-Start $answer.File $answer $PSCmdlet) {
            $started += $answer.File
        }
    }
    end {
        while ($refused.Count) {
            $running = @($started | Where-Object { Test-Running $_ })
            if ($running.Count -and $running.Count -eq $started.Count) { Start-Sleep -Milliseconds 200; continue }
            $started = $running
            while ($refused.Count) {
                $next = $refused.Peek()
                $answer = Invoke-Tool '--startAggressiveRestore', "$($next.Reads)", $next.File
                if ($answer.HResult -in $script:atItsLimit -and $started) { break }
                if (Write-Start $next.File $answer $PSCmdlet) { $started += $next.File }
                [void] $refused.Dequeue()
            }
        }
    }
}

function Stop-ZanRestore {
    <#
    .SYNOPSIS
    Stops the aggressive restoration of a file.
    .DESCRIPTION
    The file keeps what it has; Start-ZanRestore goes on from there.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .EXAMPLE
    Stop-ZanRestore d:\vm\disk.vhd
    #>
    [CmdletBinding(SupportsShouldProcess)]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path
    )
    process {
        $words = { param($file) '--stopAggressiveRestore', $file }
        $answer = Invoke-ToolOn $Path 'stop aggressive restoration' $words $PSCmdlet
        if ($answer -and $answer.Status -ne 0) {
            Write-Failure $answer.File $answer.Text $answer.HResult 'ZanRestore.Stop' $PSCmdlet
        }
    }
}

function Test-ZanRestore {
    <#
    .SYNOPSIS
    Asks whether the restore filter answers for a file.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .OUTPUTS
    System.Boolean. With -Verbose the tool's own lines tell why it is false.
    .EXAMPLE
    if (-not (Test-ZanRestore d:\vm\disk.vhd)) { fltmc attach zan_restore_filter d: }
    #>
    [CmdletBinding()]
    [OutputType([bool])]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path
    )
    process {
        $answer = Invoke-ToolOn $Path '' { param($file) '--ping', $file } $PSCmdlet
        if (-not $answer) { return }
        Write-Verbose $answer.Text
        $answer.Status -eq 0
    }
}

function Get-ZanRestoreProgress {
    <#
    .SYNOPSIS
    Tells how far the restoration of a file has come.
    .DESCRIPTION
    Progress and Total are in the filter's own unit. A file is whole when they are equal and not 0.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .OUTPUTS
    An object with Path, Progress, Total, PercentComplete and IsWhole.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Get-ZanRestoreProgress | Where-Object { -not $_.IsWhole }
    #>
    [CmdletBinding()]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path
    )
    process {
        try {
            Read-Progress (Resolve-File $Path $PSCmdlet) $PSCmdlet
        } catch {
            Write-Refusal $_ $Path $PSCmdlet
        }
    }
}

function Wait-ZanRestore {
    <#
    .SYNOPSIS
    Waits until files are whole, all at once, and shows how far they are.
    .DESCRIPTION
    One progress bar shows all files, another the slowest. If a file makes no progress for longer
    than StallTimeout, an error is written and the file is no longer waited for; the restoration
    itself is not stopped. A filter that does not answer at all is waited for without a limit.
    .PARAMETER Path
    The local file. A relative path starts at the current location.
    .PARAMETER StallTimeout
    Seconds, 60 unless given.
    .OUTPUTS
    The last progress of each file, as of Get-ZanRestoreProgress, when it is known.
    .EXAMPLE
    Get-ChildItem d:\vm\*.vhd | Wait-ZanRestore -StallTimeout 300 | Format-Table
    #>
    [CmdletBinding()]
    param(
        [Parameter(Mandatory, Position = 0, ValueFromPipeline, ValueFromPipelineByPropertyName)]
        [Alias('FullName', 'File')] [string] $Path,
        [ValidateRange(1, 2147483)] [int] $StallTimeout = 60
    )
    begin {
        $comparer = if ($script:isOnWindows) { [StringComparer]::OrdinalIgnoreCase } else { [StringComparer]::Ordinal }
        $last = [Collections.Specialized.OrderedDictionary]::new($comparer) # of each file, null as long as it is not known
        $since = [Collections.Hashtable]::new($comparer) # when that was new
        $clock = [Diagnostics.Stopwatch]::StartNew()
    }
    process {
        try {
            $file = Resolve-File $Path $PSCmdlet
            $last[$file] = $null
            $since[$file] = $clock.Elapsed
        } catch {
            Write-Refusal $_ $Path $PSCmdlet
        }
    }
    end {
        $waiting = @($last.Keys)
        $whole = 0
        try {
            while ($waiting) {
                $waiting = @(foreach ($file in $waiting) {
                        try {
                            $now = Read-Progress $file $PSCmdlet
                        } catch {
                            Write-Refusal $_ $file $PSCmdlet
                            $now = $null
                        }
                        $before = $last[$file]
                        if ($now) { $last[$file] = $now }
                        if (-not $now -or $now.IsWhole) { # it is over
                            if ($now) { $whole++ }
                            if ($last[$file]) { $PSCmdlet.WriteObject($last[$file]) }
                            continue
                        }
                        if (-not $before -or $before.Progress -ne $now.Progress -or $before.Total -ne $now.Total) {
                            $since[$file] = $clock.Elapsed
                        } elseif (($clock.Elapsed - $since[$file]).TotalSeconds -gt $StallTimeout) {
                            $text = "stands still at $($now.Progress) of $($now.Total)"
                            Write-Failure $file $text $script:generalFailure 'ZanRestore.Stalled' $PSCmdlet
                            $PSCmdlet.WriteObject($now)
                            continue
                        }
                        $file
                    })
                if (-not $waiting) { break }
                $slowest = $waiting | ForEach-Object { $last[$_] } | Sort-Object PercentComplete | Select-Object -First 1
                $percent = ($last.Values | Where-Object { $_ } | Measure-Object PercentComplete -Sum).Sum / $last.Count
                Write-Progress -Id 1 -Activity 'Restoring' -PercentComplete ([Math]::Min(100, $percent)) `
                    -Status "$whole of $($last.Count) files whole"
                Write-Progress -Id 2 -ParentId 1 -Activity $slowest.Path -PercentComplete $slowest.PercentComplete `
                    -Status "$($slowest.PercentComplete) %, the slowest"
                Start-Sleep -Milliseconds 200
            }
        } finally {
            Write-Progress -Id 2 -ParentId 1 -Activity 'Restoring' -Completed
            Write-Progress -Id 1 -Activity 'Restoring' -Completed
        }
    }
}

Register-ArgumentCompleter -Native -CommandName 'zan_restore', 'zan_restore.exe' -ScriptBlock {
    param($word)
    '--ping', '--startAggressiveRestore', '--stopAggressiveRestore', '--progress' |
        Where-Object { $_.StartsWith("$word", 'Ordinal') }
}
